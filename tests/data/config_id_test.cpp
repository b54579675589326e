// Reading the configuration id out of a configuration result text.
#include <zel/convert.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "support/fault.h"
#include "tests/data/convert_reference.h"

namespace {

uint32_t extract(const char *text) {
  uint32_t id = 0xA5A5A5A5u;
  zel_extract_config_id_from_config_result(&id, text);
  return id;
}

TEST(ConfigId, ReadsTheNumberBeforeTheFirstSlash) {
  struct Row {
    const char *text;
    uint32_t id;
  } rows[] = {
      {"/42/ok", 42},
      {"#7", 7},
      {"//x", 0},
      {"/2147483648/x", 2147483647u},
      {"/-1/", 0xFFFFFFFFu},
      {"x-2147483649", 0x80000000u},
      {"/12345678901/", 0},  // eleven characters before the slash
      {"/1234567890/", 1234567890u},
      {"/  +17/", 17},
      {"/-/", 0},
      {"/12ab/", 12},
      {"x99999999999999999999", 2147483647u},
      {"x  -000000000000000000042", 0xFFFFFFD6u},
      {"/", 0},
      {"7", 0},
      {"", 0},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(extract(row.text), row.id);
  }
}

TEST(ConfigId, ScratchFailureLeavesZero) {
  const unsigned allocations = zel_test::fault_sweep([](unsigned n) {
    uint32_t id = 9;
    {
      zel_test::FaultScope scope(n);
      zel_extract_config_id_from_config_result(&id, "/42/ok");
    }
    EXPECT_EQ(id, zel_test::fault_fired() ? 0u : 42u);
    return zel_test::fault_fired();
  });
  EXPECT_EQ(allocations, 1u);
}

TEST(ConfigId, AgreesWithStrtolClampedTo32Bits) {
  std::mt19937 rng(5);
  const std::string alphabet = "/0123456789 +-x\t";
  for (int round = 0; round < 20000; ++round) {
    std::string text(rng() % 24, ' ');
    for (char &c : text) {
      c = alphabet[rng() % alphabet.size()];
    }
    SCOPED_TRACE(text);
    ASSERT_EQ(extract(text.c_str()), zel_ref::config_id(text.c_str()));
  }
}

}  // namespace
