#include "sentence_transformers/weights/safetensors.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

#include "tests/sentence_transformers/model_files.h"
#include "tests/support/failure_text.h"

namespace tovana::sentence_transformers {
namespace {

using testing::HasSubstr;

TensorMap parse(const std::string& file) {
  return parse_safetensors(std::as_bytes(std::span(file)), file.size());
}

std::string fault_of(const std::string& file) {
  return failure_of([&] { parse(file); });
}

TEST(Safetensors, FindsEachTensor) {
  const std::string header =
      R"( {"b":{"dtype":"I64","shape":[],"data_offsets":[3,11]},"e":{"dtype":"F32","shape":[0,7],)"
      R"("data_offsets":[3,3]},"a":{"dtype":"U8","shape":[1],"data_offsets":[0,1]},)"
      R"("a":{"dtype":"F6_E2M3","extra":[1],"shape":[4],"data_offsets":[0,3]},"__metadata__":null} )";
  const std::string file = safetensors_file(header, "aaabbbbbbbb");
  const TensorMap tensors = parse(file);
  const std::uint64_t begin = 8 + header.size();
  const auto place = [&](const char* name) {
    return std::tuple(tensors.at(name).offset - begin, tensors.at(name).size,
                      tensors.at(name).shape);
  };
  using Shape = std::vector<std::int64_t>;
  EXPECT_EQ(tensors.size(), 3U);
  EXPECT_EQ(place("a"), std::tuple(0, 3, Shape{4}));
  EXPECT_EQ(place("e"), std::tuple(3, 0, Shape{0, 7}));
  EXPECT_EQ(place("b"), std::tuple(3, 8, Shape{}));
  EXPECT_EQ(tensors.at("a").dtype, Dtype::f6_e2m3);  // Of two with one name, the last.
  EXPECT_EQ(tensors.at("b").element_count(), 1);
  EXPECT_EQ(tensors.at("e").element_count(), 0);
}

TEST(Safetensors, NamesTheFaultOfAHostileHeader) {
  const auto entry = [](const std::string& dtype, const std::string& shape,
                        const std::string& offsets) {
    return R"("t":{"dtype":")" + dtype + R"(","shape":[)" + shape + R"(],"data_offsets":[)" +
           offsets + "]}}";
  };
  const auto alone = [&](const char* dtype, const char* shape, const char* offsets) {
    return "{" + entry(dtype, shape, offsets);
  };
  const std::string a = R"({"a":{"dtype":"U8","shape":[4],"data_offsets":[0,4]})";
  const auto beside_a = [&](const char* shape, const char* offsets) {
    return a + "," + entry("U8", shape, offsets);
  };
  // Each with four bytes of data.
  const std::vector<std::pair<const char*, std::vector<std::string>>> cases = {
      {"none", {a + "}", beside_a("0", "4,4"), beside_a("0,4294967296,4294967296", "4,4")}},
      {"not valid JSON",
       {"", a, a + "}" + '\0', "\xEF\xBB\xBF" + a + "}", "{\"\xff\":{}}", R"({"\ud800":{}})",
        R"({"t":)" + std::string(100'000, '['), alone("F32", "18446744073709551616,0", "0,0")}},
      {"its entry is not an object", {R"({"t":null})"}},
      {"has no \"data_offsets\"", {R"({"t":{"dtype":"U8","shape":[0]}})"}},
      {"unknown dtype \"F33\"", {alone("F33", "1", "0,4")}},
      {"\"shape\" holds a negative number", {alone("F32", "-1", "0,4")}},
      {"something else than whole", {alone("F32", "1.0", "0,4"), alone("F32", "\"1\"", "0,4")}},
      {"more than any tensor has",
       {alone("F32", "9223372036854775808,0", "0,0"), alone("U8", "18446744073709551615", "0,4")}},
      {"larger than any memory",
       {alone("F32", "4294967296,4294967296", "0,0"), alone("F32", "4611686018427387904", "0,0"),
        alone("F32", "4294967296,4294967296,0", "0,0")}},
      {"\"data_offsets\" are not two", {alone("F32", "1", "0"), alone("F32", "1", "0,4,4")}},
      {"ends before it begins", {alone("F32", "1", "4,0")}},
      {"4 bytes of data, but its shape of F32 takes 8", {alone("F32", "2", "0,4")}},
      {"does not end at a whole byte", {alone("F4", "7", "0,4")}},
      {"describes 3 bytes of data, but there are 4", {alone("U8", "3", "0,3")}},
      {"describes 5 bytes of data, but there are 4", {alone("U8", "5", "0,5")}},
      {"a hole of 1 bytes before its data", {alone("U8", "3", "1,4"), beside_a("0", "5,5")}},
      {"overlaps", {beside_a("4", "3,7"), beside_a("4", "0,4"), beside_a("0", "2,2")}},
  };
  for (const auto& [fault, headers] : cases) {
    for (const std::string& header : headers) {
      EXPECT_THAT(fault_of(safetensors_file(header, "data")), HasSubstr(fault))
          << header.substr(0, 200);
    }
  }
}

TEST(Safetensors, RefusesAClaimedHeaderLengthBeyondTheFileOrTheLimit) {
  std::string file = safetensors_file("{}", "");
  for (const std::uint64_t claimed :
       {std::uint64_t{3}, std::uint64_t{1} << 63U, ~std::uint64_t{0}, ~std::uint64_t{7}}) {
    std::memcpy(file.data(), &claimed, 8);
    EXPECT_THAT(fault_of(file), HasSubstr("claims a header of " + std::to_string(claimed)));
  }
  const std::string padded = "{}" + std::string(25'000'000 - 2, ' ');
  EXPECT_EQ(fault_of(safetensors_file(padded, "")), "none");
  EXPECT_THAT(fault_of(safetensors_file(padded + ' ', "")), HasSubstr("at most 25000000"));
}

}  // namespace
}  // namespace tovana::sentence_transformers
