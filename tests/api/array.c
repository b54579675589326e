/* The array header from C: both families through the shared library. */
#include <stdlib.h>

#include <zel/array.h>

int main(void) {
  static char text[] = "x";
  lib_array_t *p = lib_array_pointers_create(1, 1, LIB_ARRAY_SPARSE, NULL);
  lib_array_t *s = lib_array_string_create(1, 0, LIB_ARRAY_SPARSE, NULL);
  int ok = p != NULL && s != NULL;
  if (ok) {
    ok = lib_array_pointers_append(p, text) == 0 && lib_array_pointers_append(p, text) == 1 &&
         p->capacity == 2 && lib_array_pointers_insert(p, NULL, 0) == 2 &&
         lib_array_pointers_remove(p, 1) == text && p->count == 2 &&
         lib_array_string_append(s, text) == 0 &&
         lib_array_string_append(s, text) == LIB_ARRAY_FAIL &&
         lib_array_string_remove(s, 0) == text && lib_array_string_insert(s, text, 0) == 0 &&
         (char *)s->data[0] == text;
  }
  if (p != NULL) {
    free(p->data);
    free(p);
  }
  if (s != NULL) {
    free(s->data);
    free(s);
  }
  return ok ? 0 : 1;
}
