// Growable arrays: one implementation on `void *` slots behind both exported families.
//
// The string family stores `char *` values in the same `void *` slots; its shims only convert
// the value type, so both families share every rule, result and limit by construction.
#include <zel/array.h>

#include <cstdlib>
#include <cstring>

namespace {

bool lib_array_is_sparse(const lib_array_t *array) {
  return (array->flags & LIB_ARRAY_SPARSE) != 0;
}

lib_array_t *lib_array_create(uint16_t capacity, uint16_t increment, uint8_t flags, void *empty) {
  if (capacity == 0) {
    return nullptr;
  }
  auto *array = static_cast<lib_array_t *>(calloc(1, sizeof(lib_array_t)));
  if (array == nullptr) {
    return nullptr;
  }
  array->flags = flags;
  array->data =
      static_cast<void **>((flags & LIB_ARRAY_SPARSE) != 0 ? calloc(capacity, sizeof(void *))
                                                           : malloc(capacity * sizeof(void *)));
  if (array->data == nullptr) {
    free(array);
    return nullptr;
  }
  array->capacity = capacity;
  array->increment = increment;
  array->empty = empty;
  return array;
}

// Makes room for slot `used`, growing a full array by `increment` slots. False, with the
// array untouched, for a full fixed-size array, a growth past LIB_ARRAY_MAX slots or a failed
// reallocation (which keeps the old storage).
bool lib_array_make_room(lib_array_t *array) {
  if (array->used < array->capacity) {
    return true;
  }
  if (array->increment == 0) {
    return false;
  }
  const uint32_t grown = static_cast<uint32_t>(array->used) + array->increment;
  if (grown > LIB_ARRAY_MAX) {
    return false;
  }
  auto *data = static_cast<void **>(realloc(array->data, grown * sizeof(void *)));
  if (data == nullptr) {
    return false;
  }
  if (lib_array_is_sparse(array)) {
    memset(data + array->used, 0, array->increment * sizeof(void *));
  }
  array->data = data;
  array->capacity = static_cast<uint16_t>(grown);
  return true;
}

int32_t lib_array_append(lib_array_t *array, void *value) {
  if (array == nullptr || array->count >= LIB_ARRAY_MAX || !lib_array_make_room(array)) {
    return LIB_ARRAY_FAIL;
  }
  const uint16_t index = array->used;
  array->data[index] = value;
  ++array->used;
  ++array->count;
  return index;
}

int32_t lib_array_insert(lib_array_t *array, void *value, int32_t index) {
  if (array == nullptr || !lib_array_is_sparse(array) || index < 0 || index > array->used ||
      array->count >= LIB_ARRAY_MAX) {
    return LIB_ARRAY_FAIL;
  }
  void *const empty = array->empty;
  for (int32_t i = index; i < array->used; ++i) {
    if (array->data[i] == empty) {
      array->data[i] = value;
      ++array->count;
      return i;
    }
  }
  return lib_array_append(array, value);
}

void *lib_array_remove(lib_array_t *array, int32_t index) {
  if (array == nullptr) {
    return nullptr;
  }
  if (!lib_array_is_sparse(array) || index < 0 || index >= array->used) {
    return array->empty;
  }
  void *const held = array->data[index];
  if (held == array->empty) {
    return held;
  }
  array->data[index] = array->empty;
  // A slot filled by a direct write, bypassing append and insert, was never counted; the
  // guard keeps such misuse from wrapping the count.
  if (array->count > 0) {
    --array->count;
  }
  return held;
}

}  // namespace

extern "C" {

lib_array_t *lib_array_pointers_create(uint16_t capacity, uint16_t increment, uint8_t flags,
                                       void *empty) {
  return lib_array_create(capacity, increment, flags, empty);
}

int32_t lib_array_pointers_append(lib_array_t *array, void *value) {
  return lib_array_append(array, value);
}

int32_t lib_array_pointers_insert(lib_array_t *array, void *value, int32_t index) {
  return lib_array_insert(array, value, index);
}

void *lib_array_pointers_remove(lib_array_t *array, int32_t index) {
  return lib_array_remove(array, index);
}

lib_array_t *lib_array_string_create(uint16_t capacity, uint16_t increment, uint8_t flags,
                                     char *empty) {
  return lib_array_create(capacity, increment, flags, empty);
}

int32_t lib_array_string_append(lib_array_t *array, char *value) {
  return lib_array_append(array, value);
}

int32_t lib_array_string_insert(lib_array_t *array, char *value, int32_t index) {
  return lib_array_insert(array, value, index);
}

char *lib_array_string_remove(lib_array_t *array, int32_t index) {
  return static_cast<char *>(lib_array_remove(array, index));
}

}  // extern "C"
