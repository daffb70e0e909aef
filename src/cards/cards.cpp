#include "cards/cards.h"

#include <cstring>

#include "core/core.h"

const char RankLetters[14] = "23456789TJQKA";
const char SuitLetters[5] = "cdhs";
static const char SuitLettersUpper[5] = "CDHS";

CardMask HandMasks[1326];
uint16_t HandToPair[1326];
uint16_t PairToHand[1326];
CardMask PairMasks[1326];
Card PairHi[1326], PairLo[1326];
std::vector<uint16_t> ShapeBuckets[169];
int32_t LowCardIndex = 0;

bool try_parse_cards(const std::string& text, CardMask& out) {
  char buf[256];
  size_t n = text.size() < 255 ? text.size() : 255;
  for (size_t i = 0; i < n; i++) {
    char c = text[i];
    buf[i] = (c >= 'a' && c <= 'z') ? char(c - 32) : c;
  }
  buf[n] = 0;
  CardMask m = 0;
  size_t i = 0;
  if (n == 0) {
    out = 0;
    return true;
  }
  for (;;) {
    const char* r = buf[i] ? strchr("23456789TJQKA", buf[i]) : nullptr;
    if (!r) return false;
    i++;
    const char* s = buf[i] ? strchr(SuitLettersUpper, buf[i]) : nullptr;
    if (!s) return false;
    i++;
    int card = int(s - SuitLettersUpper) * 13 + int(r - "23456789TJQKA");
    if (m & CardBit(card)) return false;
    m |= CardBit(card);
    while (buf[i] == ' ') i++;
    if (buf[i] == 0) break;
  }
  out = m;
  return true;
}

CardMask parse_cards(const std::string& text) {
  CardMask m;
  if (!try_parse_cards(text, m)) fail_invalid_card();
  return m;
}

std::string card_text(Card c) {
  return std::string{RankLetters[RankOf(c)], SuitLetters[SuitOf(c)]};
}

std::string mask_text(CardMask m) {
  std::string s;
  for (int c = 0; c < 52; c++)
    if (m & CardBit(c)) s += card_text(Card(c));
  return s;
}

int card_count(CardMask m) { return __builtin_popcountll(m); }

std::string pair_text(int p) { return card_text(PairHi[p]) + " " + card_text(PairLo[p]); }

void build_card_tables() {
  for (auto& b : ShapeBuckets) b.clear();
  for (int i = 0; i < 1326; i++) {
    CardMask m = parse_cards(std::string(HandOrderText + 5 * i, 4));
    int hi = 63 - __builtin_clzll(m), lo = __builtin_ctzll(m);
    int p = PairIndexOf(hi, lo);
    HandMasks[i] = m;
    HandToPair[i] = uint16_t(p);
    PairToHand[p] = uint16_t(i);
    PairMasks[p] = m;
    PairHi[p] = Card(hi);
    PairLo[p] = Card(lo);
    int r1 = RankOf(Card(hi)), r2 = RankOf(Card(lo));
    if (r1 < r2) std::swap(r1, r2);
    int cell;
    if (r1 == r2) cell = r1 * 13 + r1;
    else if (SuitOf(Card(hi)) == SuitOf(Card(lo))) cell = r2 * 13 + r1;  // suited: row = lower rank
    else cell = r1 * 13 + r2;                                          // offsuit: row = higher rank
    ShapeBuckets[cell].push_back(uint16_t(p));
  }
}
