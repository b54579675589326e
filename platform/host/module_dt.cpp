// Trace module registration: fills the record and creates its two flags.
#include <host/module_dt.h>
#include <host/probe.h>
#include <kro/probe.h>

#include <cstdio>
#include <cstring>

#include "kro/kro_mutex.h"

namespace {

constexpr unsigned host_reg_capacity = 64;
constexpr size_t host_flag_name_max = 48;

struct host_registration {
  const char *name;
  unsigned count;
  char flag_names[2][host_flag_name_max];  // "<name>.trace", "<name>.error"
};

kro_mutex host_reg_mutex;
host_registration host_regs[host_reg_capacity] KRO_GUARDED_BY(host_reg_mutex);
unsigned host_reg_used KRO_GUARDED_BY(host_reg_mutex) = 0;

host_registration *host_reg_find(const char *name) KRO_REQUIRES(host_reg_mutex) {
  for (unsigned i = 0; i < host_reg_used; ++i) {
    if (strcmp(host_regs[i].name, name) == 0) {
      return &host_regs[i];
    }
  }
  return nullptr;
}

}  // namespace

extern "C" {

int any_module_dt_init(any_module_dt_t *rec, const char *name) {
  kro_probe_journal_add("any_module_dt_init %s", name == nullptr ? "(null)" : name);
  if (rec == nullptr || name == nullptr) {
    return -1;
  }
  const kro_lock lock(host_reg_mutex);
  host_registration *reg = host_reg_find(name);
  if (reg == nullptr) {
    if (host_reg_used == host_reg_capacity) {
      return -1;
    }
    reg = &host_regs[host_reg_used++];
    reg->name = name;
  }
  ++reg->count;
  snprintf(reg->flag_names[0], host_flag_name_max, "%s.trace", name);
  snprintf(reg->flag_names[1], host_flag_name_max, "%s.error", name);
  kro_dt_flag_t trace = kro_dt_flag_create(reg->flag_names[0], 0);
  kro_dt_flag_t error = kro_dt_flag_create(reg->flag_names[1], 1);
  if (trace == nullptr || error == nullptr) {
    return -1;
  }
  rec->name = name;
  rec->reserved1 = 0x4d4f4454U;  // "MODT": the registration service's mark
  rec->trace_flag = trace;
  rec->error_flag = error;
  rec->reserved2 = reg->count;
  return 0;
}

unsigned host_probe_registrations(const char *name) {
  if (name == nullptr) {
    return 0;
  }
  const kro_lock lock(host_reg_mutex);
  const host_registration *reg = host_reg_find(name);
  return reg == nullptr ? 0 : reg->count;
}

}  // extern "C"
