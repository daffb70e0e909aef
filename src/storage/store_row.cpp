// RowStore (flop nodes) and CompositeStore (turn nodes): float rows, one
// vector per action.
#include <cstring>

#include "storage/memory/allocation.h"
#include "storage/store.h"
#include "storage/store_cells.h"

// ---- RowStore -----------------------------------------------------------------------

RowStore::RowStore(int32_t actions_, int32_t length_) : actions(actions_), length(length_) {
  check_action_count(actions);
  rows.resize(size_t(actions));
}

RowStore::~RowStore() {
  if (borrowed) {
    for (HandVector& row : rows) {
      row.data = nullptr;
      row.count = 0;
    }
  }
  free_lock_mask(lock);
}

bool RowStore::materialise() {
  for (HandVector& row : rows) {
    row.resize(length, false);
    if (length > 0) memset(row.data, 0, size_t(length) * sizeof(float));
  }
  return true;
}

int32_t RowStore::row_length(int32_t, int32_t) { return length; }

void RowStore::read_strategy(HandVector* out, int32_t, int32_t, const float* defaults) {
  const float* x[MaxStoreActions];
  for (int32_t a = 0; a < actions; a++) x[a] = row_or_zero(rows[size_t(a)]);
  match_rows_f32(x, actions, length, defaults, out);
}

void RowStore::write_row(int32_t, int32_t, int32_t action, const float* row) {
  if (action < 0 || action >= actions) return;
  HandVector& v = rows[size_t(action)];
  if (!v.data) materialise();
  if (length > 0) {
    if (row)
      memcpy(v.data, row, size_t(length) * sizeof(float));
    else
      memset(v.data, 0, size_t(length) * sizeof(float));
  }
}

void RowStore::update_regrets(int32_t, int32_t, const HandVector& baseline,
                              const HandVector* action_rows, const HandGroupRuns*, double) {
  if ((lock.flags & CELL_LOCKED) || actions == 0 || !rows[0].data) return;
  float* v[MaxStoreActions];
  for (int32_t a = 0; a < actions; a++) v[a] = rows[size_t(a)].data;
  uint8_t scratch[ScratchRowValues];
  update_rows_f32(v, actions, length, baseline, action_rows, cell_mask(lock, length, scratch));
}

void RowStore::accumulate_strategy(int32_t, int32_t, const HandVector* strategy,
                                   const HandVector& reach, float weight) {
  if (!(weight > 0.0f) || !reach.data || (lock.flags & CELL_LOCKED)) return;
  if (actions == 0 || !rows[0].data) return;
  float* v[MaxStoreActions];
  for (int32_t a = 0; a < actions; a++) v[a] = rows[size_t(a)].data;
  uint8_t scratch[ScratchRowValues];
  accumulate_rows_f32(v, actions, length, strategy, reach, weight, cell_mask(lock, length, scratch),
                      false);
}

int64_t RowStore::value_count(int32_t) { return int64_t(actions) * length; }

void RowStore::save(ByteWriter& writer) {
  save_lock_record(writer, lock);
  for (const HandVector& row : rows) writer.write(row_or_zero(row), size_t(length) * sizeof(float));
}

void RowStore::load(ByteSource& source) {
  load_lock_record(source, lock);
  if (actions > 0 && !rows[0].data) materialise();
  for (HandVector& row : rows) source.read(row.data, size_t(length) * sizeof(float));
}

CellLock* RowStore::cell_lock_info(int32_t, int32_t) { return &lock; }

// ---- CompositeStore ---------------------------------------------------------------------

CompositeStore::CompositeStore(int32_t actions, const std::vector<int32_t>& lengths) {
  parts.reserve(lengths.size());
  for (int32_t length : lengths) parts.push_back(new RowStore(actions, length));
}

CompositeStore::~CompositeStore() {
  for (RowStore* p : parts) delete p;
  aligned_free_bytes(block);
}

bool CompositeStore::materialise() {
  if (!block) {
    int64_t values = 0;
    for (RowStore* p : parts)
      if (p->length > 0) values += int64_t(p->actions) * align4(p->length);
    if (values > 0) {
      block = static_cast<float*>(aligned_alloc_bytes(size_t(values) * sizeof(float), RowAlignment));
      if (!block) return false;
      float* at = block;
      for (RowStore* p : parts) {
        if (p->length <= 0) continue;
        for (HandVector& row : p->rows) {
          row.release();
          row.data = at;
          row.count = p->length;
          at += align4(p->length);
        }
        p->borrowed = true;
      }
    }
  }
  // Each part clears its rows, as a fresh store starts at zero.
  for (RowStore* p : parts)
    if (!p->materialise()) return false;
  return true;
}

int32_t CompositeStore::row_length(int32_t group, int32_t cell) {
  return parts[size_t(group)]->row_length(group, cell);
}

void CompositeStore::read_strategy(HandVector* out, int32_t group, int32_t cell,
                                   const float* defaults) {
  parts[size_t(group)]->read_strategy(out, group, cell, defaults);
}

void CompositeStore::write_row(int32_t group, int32_t cell, int32_t action, const float* row) {
  parts[size_t(group)]->write_row(group, cell, action, row);
}

void CompositeStore::update_regrets(int32_t group, int32_t cell, const HandVector& baseline,
                                    const HandVector* action_rows,
                                    const HandGroupRuns* groups_or_null, double scale) {
  parts[size_t(group)]->update_regrets(group, cell, baseline, action_rows, groups_or_null, scale);
}

void CompositeStore::accumulate_strategy(int32_t group, int32_t cell, const HandVector* strategy,
                                         const HandVector& reach, float weight) {
  parts[size_t(group)]->accumulate_strategy(group, cell, strategy, reach, weight);
}

int64_t CompositeStore::value_count(int32_t group) {
  if (group >= 0) return parts[size_t(group)]->value_count(-1);
  int64_t total = 0;
  for (RowStore* p : parts) total += p->value_count(-1);
  return total;
}

void CompositeStore::save(ByteWriter& writer) {
  for (RowStore* p : parts) p->save(writer);
}

void CompositeStore::load(ByteSource& source) {
  for (RowStore* p : parts) p->load(source);
}

CellLock* CompositeStore::cell_lock_info(int32_t group, int32_t cell) {
  return parts[size_t(group)]->cell_lock_info(group, cell);
}
