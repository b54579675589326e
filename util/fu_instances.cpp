// Feature event loop: the queue of enabled feature instances, bound ZEL_FU_INSTANCES_MAX.
#include <cstddef>
#include <cstdlib>

#include "util/fu_internal.h"

static_assert(offsetof(zel_fu_instance_t, link) == 0, "the queue's link leads the record");

namespace {

// The feature instance a request names; the feature id written alongside is not needed.
uint32_t zel_fu_req_instance(const fm_feature_instance_req_t *req) {
  uint32_t scratch = 0;
  return fm_get_feature_instance_req(req, &scratch);
}

}  // namespace

void zel_fu_instances_release(zel_fu_handle_t *handle) {
  while (void *rec = kro_queue_dequeue(&handle->instances)) {
    free(rec);
  }
}

extern "C" {

int32_t zel_fu_feature_enable(zel_fu_handle_t *handle, const fm_feature_instance_req_t *req) {
  if (handle == nullptr || req == nullptr) {
    return 0;
  }
  auto *rec = static_cast<zel_fu_instance_t *>(calloc(1, sizeof(zel_fu_instance_t)));
  if (rec == nullptr) {
    return 0;
  }
  rec->instance = zel_fu_req_instance(req);
  if (kro_queue_enqueue(&handle->instances, rec) == 0) {
    free(rec);
    return 0;
  }
  return 1;
}

void zel_fu_feature_disable(zel_fu_handle_t *handle, const fm_feature_instance_req_t *req) {
  if (handle == nullptr || req == nullptr) {
    return;
  }
  for (void *e = kro_queue_peek_head(&handle->instances); e != nullptr; e = kro_queue_get_next(e)) {
    auto *rec = static_cast<zel_fu_instance_t *>(e);
    if (rec->instance == zel_fu_req_instance(req)) {
      if (kro_queue_unqueue(&handle->instances, rec) != 0) {
        free(rec);
      }
      return;
    }
  }
}

int32_t zel_fu_can_exit(const zel_fu_handle_t *handle) {
  return handle == nullptr || kro_queue_empty(&handle->instances) != 0 ? 1 : 0;
}

}  // extern "C"
