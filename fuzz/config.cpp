// libFuzzer target: random sequences of SNMP additions and string builds on one configuration
// object, each result and each string checked against a small model of the object.
//
// Input: a sequence of operations, each an opcode byte followed by its argument bytes (missing
// bytes read as 0). Texts are drawn from characters that include the string's separators, with
// lengths reaching past every limit, and may be NULL.
#include <zel/config.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"

namespace {

struct zel_fuzz_input : zel_fuzz_bytes {
  // NULL (when `nullable`, one case in eight) or a text of up to `max_len` characters.
  bool text(std::string &out, size_t max_len, bool nullable) {
    const uint8_t sel = byte();
    if (nullable && sel % 8 == 0) return false;
    static const char pool[] = "a1/;,-.Z";
    const size_t len = byte() % (max_len + 1);
    const uint8_t seed = byte();
    out.assign(len, 'x');
    for (size_t i = 0; i < len; ++i) out[i] = pool[(seed + i * (sel | 1)) % 8];
    return true;
  }
};

// What the object should hold, and the string it should give.
struct zel_fuzz_model {
  bool attached = false;
  std::string context, obj_name, inst_name;
  uint32_t type = 0;
  std::vector<std::string> objects, instances;  // instances already rendered

  std::string render() const {
    static const char *const keywords[] = {"", "exact", "wildcard", "repeat", "range"};
    std::string s = "/loc1/snmp///" + obj_name + ";";
    for (size_t i = 0; i < objects.size(); ++i) s += (i ? "," : "") + objects[i];
    s += "/" + inst_name + ";" + (type <= 4 ? keywords[type] : "") + ";";
    for (size_t i = 0; i < instances.size(); ++i) s += (i ? "," : "") + instances[i];
    if (!context.empty()) s += "/" + context;
    return s;
  }
};

int32_t zel_fuzz_context(zel_fuzz_model &m, const char *c) {
  if (c == nullptr) return ZEL_CFG_EMISSING;
  if (strlen(c) > ZEL_SNMP_CONTEXT_MAX) return ZEL_CFG_ETOOLONG;
  m.attached = true;
  if (!m.context.empty()) return ZEL_CFG_EEXIST;
  m.context = c;
  return ZEL_CFG_OK;
}

int32_t zel_fuzz_object(zel_fuzz_model &m, const char *name, const char *obj) {
  if (name == nullptr || obj == nullptr) return ZEL_CFG_EMISSING;
  if (strlen(name) > ZEL_SNMP_LIST_NAME_MAX || strlen(obj) > ZEL_SNMP_OBJECT_MAX) {
    return ZEL_CFG_ETOOLONG;
  }
  m.attached = true;
  if (m.obj_name.empty()) {
    m.obj_name = name;
  } else if (m.obj_name != name) {
    return ZEL_CFG_EMISMATCH;
  }
  if (m.objects.size() == ZEL_SNMP_LIST_CAPACITY) return ZEL_CFG_EFULL;
  m.objects.push_back(obj);
  return ZEL_CFG_OK;
}

int32_t zel_fuzz_instance(zel_fuzz_model &m, const char *name, uint32_t type, const char *oid,
                          const char *end, int32_t count) {
  if (name == nullptr) return ZEL_CFG_EPROVIDER;
  if (strlen(name) > ZEL_SNMP_LIST_NAME_MAX) return ZEL_CFG_ETOOLONG;
  if (type == ZEL_SNMP_INSTANCE_WILDCARD) {
    if (oid != nullptr && strlen(oid) > ZEL_SNMP_OID_MAX) return ZEL_CFG_EOID;
  } else if (type >= 1 && type <= 4) {
    if (type == ZEL_SNMP_INSTANCE_RANGE && (end == nullptr || strlen(end) > ZEL_SNMP_OID_MAX)) {
      return ZEL_CFG_EOID;
    }
    if (oid == nullptr || strlen(oid) > ZEL_SNMP_OID_MAX) return ZEL_CFG_EOID;
  } else {
    return ZEL_CFG_ETYPE;
  }
  m.attached = true;
  if (m.inst_name.empty()) {
    if (!m.instances.empty() && type != m.type) return ZEL_CFG_EMISMATCH;
    m.inst_name = name;
    m.type = type;
  } else if (m.inst_name != name || m.type != type) {
    return ZEL_CFG_EMISMATCH;
  }
  if (m.instances.size() == ZEL_SNMP_LIST_CAPACITY) return ZEL_CFG_EFULL;
  std::string text = oid == nullptr ? "" : oid;
  if (type == ZEL_SNMP_INSTANCE_REPEAT) text += "-" + std::to_string(count);
  if (type == ZEL_SNMP_INSTANCE_RANGE) text += std::string("-") + end;
  m.instances.push_back(text);
  return ZEL_CFG_OK;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  // Every refused addition echoes its trace point on standard output.
  if (freopen("/dev/null", "w", stdout) == nullptr) abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zel_fuzz_input in{{data, size}};
  zel_fuzz_model m;
  zel_util_config_t *cfg = zel_util_config_create("loc1", "snmp");
  if (cfg == nullptr) abort();
  // A few names, so that additions mostly agree on them.
  const char *const names[] = {"", "ifCounters", "ports", "a/b;c"};
  std::string a, b, c;
  while (in.n != 0) {
    const uint8_t op = in.byte();
    int32_t got = 0, want = 0;
    switch (op % 5) {
      case 0: {
        const bool has = in.text(a, ZEL_SNMP_CONTEXT_MAX + 2, true);
        want = zel_fuzz_context(m, has ? a.c_str() : nullptr);
        got = zel_util_snmp_add_context(cfg, has ? a.c_str() : nullptr);
        break;
      }
      case 1: {
        const uint8_t sel = in.byte();
        const char *name = sel < 200 ? names[sel % 4] : nullptr;
        if (sel >= 250) {
          a.assign(ZEL_SNMP_LIST_NAME_MAX + 1, 'n');
          name = a.c_str();
        }
        const bool has = in.text(b, ZEL_SNMP_OBJECT_MAX + 2, true);
        want = zel_fuzz_object(m, name, has ? b.c_str() : nullptr);
        got = zel_util_snmp_add_object(cfg, name, has ? b.c_str() : nullptr);
        break;
      }
      case 2:
      case 3: {
        const uint8_t sel = in.byte();
        const char *name = sel < 250 ? names[sel % 4] : nullptr;
        const uint32_t type = in.byte() % 6;
        const bool has_oid = in.text(b, ZEL_SNMP_OID_MAX + 2, true);
        const bool has_end = in.text(c, ZEL_SNMP_OID_MAX + 2, true);
        const int32_t count = static_cast<int32_t>(static_cast<uint32_t>(in.byte()) << 24 |
                                                   static_cast<uint32_t>(in.byte()));
        const char *oid = has_oid ? b.c_str() : nullptr, *end = has_end ? c.c_str() : nullptr;
        want = zel_fuzz_instance(m, name, type, oid, end, count);
        got = zel_util_snmp_add_instance(cfg, name, type, oid, end, count);
        break;
      }
      default: {
        const char *s = zel_util_config_string_get(cfg);
        if ((s != nullptr) != m.attached || (s != nullptr && m.render() != s)) abort();
        break;
      }
    }
    if (got != want) abort();
  }
  const char *s = zel_util_config_string_get(cfg);
  if ((s != nullptr) != m.attached || (s != nullptr && m.render() != s)) abort();
  zel_util_config_destroy(cfg);
  return 0;
}
