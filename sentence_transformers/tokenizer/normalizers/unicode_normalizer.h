#pragma once

#include "sentence_transformers/tokenizer/normalizers/normalizer.h"

namespace tovana::sentence_transformers {

enum class UnicodeForm { nfc, nfd, nfkc, nfkd };

/// One of the normalization forms of Unicode (UAX #15).
class UnicodeNormalizer final : public Normalizer {
 public:
  explicit UnicodeNormalizer(UnicodeForm form) noexcept : _form(form) {}

  void normalize(std::string& text) const override;

 private:
  UnicodeForm _form;
};

}  // namespace tovana::sentence_transformers
