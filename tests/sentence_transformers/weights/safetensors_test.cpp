#include "sentence_transformers/weights/safetensors.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tovana/exceptions/exceptions.h"

namespace tovana::sentence_transformers {
namespace {

std::string file_of(std::string_view header, std::size_t data_size) {
  const std::uint64_t size = header.size();
  std::string file(8, '\0');
  std::memcpy(file.data(), &size, 8);
  file += header;
  for (std::size_t i = 0; i < data_size; ++i) file += static_cast<char>(i + 1);
  return file;
}

TensorMap parse(const std::string& file) {
  return parse_safetensors(std::as_bytes(std::span(file)));
}

/// What is wrong with a file; "" when nothing is.
std::string fault_of(const std::string& file) {
  try {
    parse(file);
    return "";
  } catch (const ValueError& error) {
    return error.what();
  }
}

/// Where the tensors lie and how they are shaped, without their names and element types.
using Layout = std::vector<std::tuple<std::ptrdiff_t, std::size_t, std::vector<std::int64_t>>>;

Layout layout_of(const TensorMap& tensors, const std::string& file) {
  Layout layout;
  for (const auto& [name, tensor] : tensors) {
    layout.emplace_back(tensor.data.data() - std::as_bytes(std::span(file)).data(),
                        tensor.data.size(), tensor.shape);
  }
  std::ranges::sort(layout);
  return layout;
}

constexpr std::string_view kGoodHeader =
    R"({"__metadata__":{"format":"pt"},"bias":{"dtype":"F32","shape":[2],"data_offsets":[12,20]},)"
    R"("weight":{"dtype":"BF16","shape":[2,3],"data_offsets":[0,12]}})";

TEST(Safetensors, FindsEachTensor) {
  const std::string header =
      R"( {"b":{"dtype":"I64","shape":[],"data_offsets":[3,11]},"e":{"dtype":"F32","shape":[0,7],)"
      R"("data_offsets":[3,3]},"a":{"dtype":"U8","shape":[1],"data_offsets":[0,1]},)"
      R"("a":{"dtype":"F6_E2M3","extra":[1],"shape":[4],"data_offsets":[0,3]},"__metadata__":null} )";
  const std::string file = file_of(header, 11);
  const TensorMap tensors = parse(file);
  const auto data_of = [&tensors](const char* name) {
    const auto data = tensors.at(name).data;
    return std::string(reinterpret_cast<const char*>(data.data()), data.size());
  };
  ASSERT_EQ(tensors.size(), 3U);
  EXPECT_EQ(data_of("a"), "\1\2\3");
  EXPECT_EQ(tensors.at("a").dtype, Dtype::f6_e2m3);  // Of two with one name, the last.
  EXPECT_EQ(tensors.at("a").shape, std::vector<std::int64_t>{4});
  EXPECT_EQ(data_of("b"), "\4\5\6\7\x8\x9\xa\xb");
  EXPECT_EQ(tensors.at("b").shape, std::vector<std::int64_t>{});
  EXPECT_EQ(tensors.at("b").element_count(), 1);
  EXPECT_EQ(data_of("e"), "");
  EXPECT_EQ(tensors.at("e").element_count(), 0);
}

TEST(Safetensors, NamesTheFaultOfAHostileHeader) {
  struct Case {
    std::string header;
    std::size_t data_size;
    const char* fault;
  };
  const auto tensor = [](const std::string& dtype, const std::string& shape,
                         const std::string& offsets) {
    return R"({"t":{"dtype":)" + dtype + R"(,"shape":)" + shape + R"(,"data_offsets":)" + offsets +
           "}}";
  };
  const std::string a = R"("a":{"dtype":"U8","shape":[4],"data_offsets":[0,4]})";
  const std::string e = R"("e":{"dtype":"U8","shape":[0],"data_offsets":)";
  const std::vector<Case> cases = {
      {"", 0, "no valid JSON"},
      {"[]", 0, "no JSON object"},
      {"{" + a, 4, "no valid JSON"},
      {std::string("{" + a + "}") + '\0', 4, "no valid JSON"},
      {"\xEF\xBB\xBF{" + a + "}", 4, "no valid JSON"},
      {"{\"\xff\":{}}", 0, "no valid JSON"},
      {R"({"\ud800":{}})", 0, "no valid JSON"},
      {R"({"t":)" + std::string(100'000, '['), 0, "no valid JSON"},
      {R"({"t":null})", 0, "its entry is no object"},
      {R"({"t\n":["F32",[1],[0,4]]})", 4, "tensor \"t\\n\": its entry is no object"},
      {R"({"t":{"dtype":"U8","shape":[0]}})", 0, "has no \"data_offsets\""},
      {R"({"t":{"shape":[0],"data_offsets":[0,0]}})", 0, "has no \"dtype\""},
      {R"({"t":{"dtype":"U8","data_offsets":[0,0]}})", 0, "has no \"shape\""},
      {R"({"t":{"dtype":"U8","dtype":"U8","shape":[0],"data_offsets":[0,0]}})", 0,
       "\"dtype\" comes twice"},
      {R"({"__metadata__":{},"__metadata__":{}})", 0, "\"__metadata__\" comes twice"},
      {R"({"__metadata__":{"a":1}})", 0, "the value of \"a\" is no text"},
      {R"({"__metadata__":[]})", 0, "\"__metadata__\" is no object"},
      {tensor("\"F33\"", "[1]", "[0,4]"), 4, "unknown dtype \"F33\""},
      {tensor("32", "[1]", "[0,4]"), 4, "\"dtype\" is no text"},
      {tensor("\"F32\"", "1", "[0,4]"), 4, "\"shape\" is no list"},
      {tensor("\"F32\"", "[-1]", "[0,4]"), 4, "\"shape\" holds a negative number"},
      {tensor("\"F32\"", "[1.0]", "[0,4]"), 4, "something else than whole numbers"},
      {tensor("\"F32\"", "[\"1\"]", "[0,4]"), 4, "something else than whole numbers"},
      {tensor("\"F32\"", "[18446744073709551616,0]", "[0,0]"), 0, "no valid JSON"},
      {tensor("\"F32\"", "[9223372036854775808,0]", "[0,0]"), 0, "more than any tensor has"},
      {tensor("\"F32\"", "[4294967296,4294967296]", "[0,0]"), 0, "larger than any memory"},
      {tensor("\"F32\"", "[4294967296,4294967296,0]", "[0,0]"), 0, "larger than any memory"},
      {tensor("\"F32\"", "[4611686018427387904]", "[0,0]"), 0, "larger than any memory"},
      {tensor("\"F32\"", "[0,4294967296,4294967296]", "[0,0]"), 0, nullptr},
      {tensor("\"F32\"", "[1]", "[0]"), 4, "\"data_offsets\" are not two numbers"},
      {tensor("\"F32\"", "[1]", "[0,4,4]"), 4, "\"data_offsets\" are not two numbers"},
      {tensor("\"F32\"", "[1]", "[4,0]"), 4, "ends before it begins"},
      {tensor("\"F32\"", "[2]", "[0,4]"), 4, "has 4 bytes of data, but its shape of F32 takes 8"},
      {tensor("\"F4\"", "[7]", "[0,4]"), 4, "does not end at a whole byte"},
      {tensor("\"U8\"", "[18446744073709551615]", "[0,18446744073709551615]"), 4,
       "more than any tensor has"},
      {"{" + a + "}", 3, "describes 4 bytes of data, but there are 3"},
      {"{" + a + "}", 5, "describes 4 bytes of data, but there are 5"},
      {"{}", 1, "describes 0 bytes of data, but there are 1"},
      {tensor("\"U8\"", "[3]", "[1,4]"), 4, "a hole of 1 bytes before its data"},
      {"{" + a + R"(,"t":{"dtype":"U8","shape":[4],"data_offsets":[3,7]}})", 7, "overlaps"},
      {"{" + a + R"(,"t":{"dtype":"U8","shape":[4],"data_offsets":[0,4]}})", 4, "overlaps"},
      {"{" + a + "," + e + "[2,2]}}", 4, "overlaps"},
      {"{" + a + "," + e + "[8,8]}}", 4, "a hole of 4 bytes"},
      {"{" + a + "," + e + "[4,4]}}", 4, nullptr},
  };
  for (const Case& c : cases) {
    const std::string fault = fault_of(file_of(c.header, c.data_size));
    if (c.fault == nullptr) {
      EXPECT_EQ(fault, "") << c.header;
    } else {
      EXPECT_THAT(fault, testing::HasSubstr(c.fault)) << c.header.substr(0, 200);
    }
  }
}

TEST(Safetensors, RefusesAClaimedHeaderLengthBeyondTheFileOrTheLimit) {
  std::string file = file_of("{}", 0);
  for (const std::uint64_t claimed :
       {std::uint64_t{3}, std::uint64_t{25'000'001}, std::uint64_t{1} << 63U, ~std::uint64_t{0},
        ~std::uint64_t{7}}) {
    std::memcpy(file.data(), &claimed, 8);
    EXPECT_THAT(fault_of(file),
                testing::HasSubstr("claims a header of " + std::to_string(claimed)));
  }
  const std::string padded = "{}" + std::string(25'000'000 - 2, ' ');
  EXPECT_EQ(fault_of(file_of(padded, 0)), "");
  EXPECT_THAT(fault_of(file_of(padded + ' ', 0)), testing::HasSubstr("at most 25000000"));
}

TEST(Safetensors, NoCutAndNoChangedByteMovesATensor) {
  const std::string good = file_of(kGoodHeader, 20);
  const Layout layout = layout_of(parse(good), good);
  ASSERT_EQ(layout.size(), 2U);
  for (std::size_t length = 0; length < good.size(); ++length) {
    // A string of its own, so that the address sanitizer sees a read behind its end.
    EXPECT_NE(fault_of(std::string(good, 0, length)), "") << length;
  }
  std::size_t accepted = 0;
  for (std::size_t place = 0; place < 8 + kGoodHeader.size(); ++place) {
    std::string file = good;
    for (int value = 0; value < 256; ++value) {
      file[place] = static_cast<char>(value);
      std::optional<TensorMap> tensors;
      try {
        tensors = parse(file);
      } catch (const ValueError&) {
        continue;
      }
      ++accepted;
      ASSERT_EQ(layout_of(*tensors, file), layout) << "byte " << place << " is " << value;
    }
  }
  // Other names, other types of the same width: not everything is refused.
  EXPECT_GT(accepted, 1000U);
}

}  // namespace
}  // namespace tovana::sentence_transformers
