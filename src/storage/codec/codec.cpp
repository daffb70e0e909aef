// Choosing a row codec by its id, and the transform-and-encode helpers.
#include "storage/codec/codec.h"


// Each codec lives in its own file; these make its two halves.
RowEncoder* make_fse_encoder(ChannelSink sink);
RowDecoder* make_fse_decoder(ChannelSource source);
RowEncoder* make_nibble_encoder(ChannelSink sink);
RowDecoder* make_nibble_decoder(ChannelSource source);
RowEncoder* make_range_encoder(ChannelSink sink);
RowDecoder* make_range_decoder(ChannelSource source);

RowEncoder* make_encoder(CodecId codec_id, ChannelSink sink) {
  RowEncoder* encoder;
  switch (codec_id) {
    case CodecId::RangeCodec: encoder = make_range_encoder(sink); break;
    case CodecId::NibbleCodec: encoder = make_nibble_encoder(sink); break;
    case CodecId::FseCodec: encoder = make_fse_encoder(sink); break;
    default: return nullptr;
  }
  const uint8_t id = uint8_t(codec_id);
  sink.write(sink.context, 0, &id, 1);
  return encoder;
}

RowDecoder* make_decoder(ChannelSource source) {
  uint8_t id;
  if (source.read(source.context, 0, &id, 1) != 1) return nullptr;
  switch (CodecId(id)) {
    case CodecId::RangeCodec: return make_range_decoder(source);
    case CodecId::NibbleCodec: return make_nibble_decoder(source);
    case CodecId::FseCodec: return make_fse_decoder(source);
  }
  return nullptr;
}

void encode_row32(RowEncoder& encoder, const uint32_t* row, const uint32_t* reference, int count) {
  uint32_t first[MaxRowValues], second[MaxRowValues];
  bool uses_reference = transform_row32(row, reference, count, first, second);
  encoder.encode(uses_reference ? second : first, count, uses_reference);
}

void encode_row16(RowEncoder& encoder, const uint16_t* row, const uint16_t* reference, int count) {
  uint32_t first[MaxRowValues], second[MaxRowValues];
  bool uses_reference = transform_row16(row, reference, count, first, second);
  encoder.encode(uses_reference ? second : first, count, uses_reference);
}
