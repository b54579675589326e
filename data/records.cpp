// Release and deep copy of the row data records. Pure memory management: no lock, no trace.
// A copy is built into zeroed blocks and, on any failure, released through the same cleanup
// operations that release a finished record, so a half-built copy never escapes.
#include <zel/data.h>

#include <cstdlib>
#include <cstring>

namespace {

// Releases one item of a row by the row's kind; items of an unknown kind are left alone.
void zel_row_data_item_cleanup(uint32_t kind, void *item) {
  switch (kind) {
    case ZEL_ROW_DATA_TEMPLATE:
      zel_data_template_t_cleanup(static_cast<zel_data_template_t *>(item));
      break;
    case ZEL_ROW_DATA_VALUE:
      zel_data_value_t_cleanup(static_cast<zel_data_value_t *>(item));
      break;
    case ZEL_ROW_DATA_COMPLETE:
      zel_data_complete_t_cleanup(static_cast<zel_data_complete_t *>(item));
      break;
    case ZEL_ROW_DATA_ERROR:
      zel_data_error_t_cleanup(static_cast<zel_data_error_t *>(item));
      break;
    default:
      break;
  }
}

// Copies one non-NULL item of a row; NULL when the kind has no copy or memory runs out.
void *zel_row_data_item_dup(uint32_t kind, const void *item) {
  switch (kind) {
    case ZEL_ROW_DATA_TEMPLATE:
      return zel_data_template_t_dup(static_cast<const zel_data_template_t *>(item));
    case ZEL_ROW_DATA_VALUE:
      return zel_data_value_t_dup(static_cast<const zel_data_value_t *>(item));
    default:
      return nullptr;
  }
}

}  // namespace

extern "C" {

void zel_data_error_t_cleanup(zel_data_error_t *err) {
  if (err == nullptr) {
    return;
  }
  free(err->detail);
  free(err);
}

void zel_data_complete_t_cleanup(zel_data_complete_t *complete) {
  free(complete);
}

void zel_data_value_t_cleanup(zel_data_value_t *value) {
  if (value == nullptr) {
    return;
  }
  free(value->data);
  value->data = nullptr;
  free(value);
}

zel_data_value_t *zel_data_value_t_dup(const zel_data_value_t *value) {
  if (value == nullptr) {
    return nullptr;
  }
  auto *copy = static_cast<zel_data_value_t *>(calloc(1, sizeof(zel_data_value_t)));
  if (copy == nullptr) {
    return nullptr;
  }
  copy->tag = value->tag;
  copy->len = value->len;
  if (value->data == nullptr) {
    return copy;
  }
  // At least one byte, so that an empty but present data block stays present in the copy.
  copy->data = static_cast<uint8_t *>(calloc(value->len != 0 ? value->len : 1, 1));
  if (copy->data == nullptr) {
    zel_data_value_t_cleanup(copy);
    return nullptr;
  }
  memcpy(copy->data, value->data, value->len);
  return copy;
}

void zel_data_template_t_cleanup(zel_data_template_t *tmpl) {
  if (tmpl == nullptr) {
    return;
  }
  free(tmpl->name);
  tmpl->name = nullptr;
  free(tmpl);
}

zel_data_template_t *zel_data_template_t_dup(const zel_data_template_t *tmpl) {
  if (tmpl == nullptr) {
    return nullptr;
  }
  auto *copy = static_cast<zel_data_template_t *>(calloc(1, sizeof(zel_data_template_t)));
  if (copy == nullptr) {
    return nullptr;
  }
  if (tmpl->name != nullptr) {
    copy->name = strdup(tmpl->name);
    if (copy->name == nullptr) {
      zel_data_template_t_cleanup(copy);
      return nullptr;
    }
  }
  copy->attr1 = tmpl->attr1;
  copy->attr2 = tmpl->attr2;
  copy->attr3 = tmpl->attr3;
  copy->attr4 = tmpl->attr4;
  return copy;
}

void zel_row_data_t_cleanup(zel_row_data_t *row) {
  if (row == nullptr) {
    return;
  }
  if (row->items != nullptr) {
    for (uint32_t i = 0; i < row->count; ++i) {
      if (row->items[i] != nullptr) {
        zel_row_data_item_cleanup(row->kind, row->items[i]);
      }
    }
    free(static_cast<void *>(row->items));
  }
  free(row);
}

zel_row_data_t *zel_row_data_t_dup(const zel_row_data_t *row) {
  if (row == nullptr) {
    return nullptr;
  }
  auto *copy = static_cast<zel_row_data_t *>(calloc(1, sizeof(zel_row_data_t)));
  if (copy == nullptr) {
    return nullptr;
  }
  copy->word0 = row->word0;
  copy->word1 = row->word1;
  copy->kind = row->kind;
  copy->count = row->count;
  if (row->items == nullptr) {
    return copy;
  }
  // calloc refuses a count whose byte size overflows; one slot at least, so that an empty
  // array is still a block of its own.
  copy->items = static_cast<void **>(calloc(row->count != 0 ? row->count : 1, sizeof(void *)));
  if (copy->items == nullptr) {
    zel_row_data_t_cleanup(copy);
    return nullptr;
  }
  for (uint32_t i = 0; i < row->count; ++i) {
    if (row->items[i] == nullptr) {
      continue;
    }
    copy->items[i] = zel_row_data_item_dup(row->kind, row->items[i]);
    if (copy->items[i] == nullptr) {
      zel_row_data_t_cleanup(copy);
      return nullptr;
    }
  }
  return copy;
}

}  // extern "C"
