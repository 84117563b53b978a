#pragma once

#include <array>
#include <cstddef>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

#include <curl/curl.h>

#include "tovana/engines/http/ca_certificates.h"
#include "tovana/engines/http/curl_slots.h"
#include "tovana/engines/http/transport.h"

namespace tovana::http {

/// One request on one slot, run on the calling thread.
class CurlExchange {
 public:
  /// Both `request` and `sink` have to outlive it. libcurl's own
  /// certificates are trusted when the path of `ca` is empty.
  CurlExchange(CurlSlot& slot, const Request& request, ResponseSink& sink, const CaPlace& ca);
  ~CurlExchange();
  CurlExchange(const CurlExchange&) = delete;
  CurlExchange& operator=(const CurlExchange&) = delete;

  /// Once only. Throws what the sink and the stop test throw, std::bad_alloc, and RuntimeError when
  /// libcurl fails in another way than by the network.
  Outcome run();

 private:
  /// What changes whenever the exchange gets on; compared, not read.
  using Progress = std::array<curl_off_t, 6>;
  using HeaderList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

  void _configure(const CaPlace& ca);
  void _configure_headers();
  CURLcode _drive();
  Progress _progress() const;
  Outcome _outcome_of(CURLcode result);

  static std::size_t _on_header(const char* bytes, std::size_t one, std::size_t size,
                                void* self) noexcept;
  static std::size_t _on_body(const char* bytes, std::size_t one, std::size_t size,
                              void* self) noexcept;
  /// Both return whether to go on.
  bool _header_line(std::string_view line);
  bool _header_field(std::string_view line);
  bool _body_bytes(std::string_view bytes);

  CurlSlot& _slot;
  const Request& _request;
  ResponseSink& _sink;
  HeaderList _headers;
  std::array<char, CURL_ERROR_SIZE> _error_text{};

  ResponseHead _head;
  curl_off_t _received = 0;  ///< Bytes of the body, decoded.
  std::size_t _header_bytes = 0;
  bool _head_is_whole = false;

  bool _is_aborted = false;        ///< By the sink or the stop test.
  std::string _refusal;            ///< Why we ended it ourselves over what the response is.
  std::exception_ptr _sink_threw;  ///< C frames lie between the sink and its caller.
  std::string _expired;            ///< Which of our own limits ran out.
};

}  // namespace tovana::http
