#include "platform/HttpFetch.h"

#include <memory>
#include <mutex>
#include <optional>

#include <curl/curl.h>
#include <fmt/format.h>

namespace kestrin::platform {

namespace {

struct Download {
  plist::Data body;
  std::size_t limit = 0;
  bool tooLarge = false;
};

std::size_t receive(char* bytes, std::size_t size, std::size_t count, void* userData) {
  auto* download = static_cast<Download*>(userData);
  std::size_t length = size * count;
  if (download->body.size() + length > download->limit) {
    download->tooLarge = true;
    return 0; // ends the transfer
  }
  download->body.insert(download->body.end(), bytes, bytes + length);
  return length;
}

struct UrlParts {
  std::string scheme;
  std::string host;
  bool credentials = false;
};

// The address as libcurl itself will read it: a check on the text's beginning would take
// "http://127.0.0.1:80@evil.example/" for this machine.
std::optional<UrlParts> partsOf(const std::string& url) {
  std::unique_ptr<CURLU, void (*)(CURLU*)> parsed(curl_url(), curl_url_cleanup);
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
    return std::nullopt;
  }
  UrlParts parts;
  for (auto [part, target] :
       {std::pair{CURLUPART_SCHEME, &parts.scheme}, std::pair{CURLUPART_HOST, &parts.host}}) {
    char* text = nullptr;
    if (curl_url_get(parsed.get(), part, &text, 0) != CURLUE_OK || text == nullptr) {
      return std::nullopt;
    }
    *target = text;
    curl_free(text);
  }
  for (CURLUPart part : {CURLUPART_USER, CURLUPART_PASSWORD}) {
    char* text = nullptr;
    if (curl_url_get(parsed.get(), part, &text, 0) == CURLUE_OK) {
      parts.credentials = true;
      curl_free(text);
    }
  }
  return parts;
}

bool isLoopbackHttp(const std::string& url) {
  auto parts = partsOf(url);
  return parts && parts->scheme == "http" && !parts->credentials &&
         (parts->host == "127.0.0.1" || parts->host == "localhost" || parts->host == "[::1]");
}

} // namespace

bool isFetchableUrl(const std::string& url) {
  auto parts = partsOf(url);
  return parts && !parts->credentials && (parts->scheme == "https" || isLoopbackHttp(url));
}

Expected<plist::Data> httpGet(const std::string& url, const HttpLimits& limits) {
  static std::once_flag initialized;
  std::call_once(initialized, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  if (!isFetchableUrl(url)) {
    return Failure{fmt::format("{} is neither https nor this machine's own http", url)};
  }
  std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  if (!curl) {
    return Failure{"cannot start a download"};
  }
  Download download;
  download.limit = limits.maxBytes;
  // A redirect only ever leads to https: a plain-http one could leave this machine.
  const char* protocols = isLoopbackHttp(url) ? "http,https" : "https";
  const char* redirects = "https";
  char error[CURL_ERROR_SIZE] = {};
  CURL* c = curl.get();
  curl_easy_setopt(c, CURLOPT_URL, url.c_str());
  curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, protocols);
  curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, redirects);
  curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(c, CURLOPT_MAXREDIRS, limits.maxRedirects);
  curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits.connect.count()));
  curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(limits.total.count()));
  curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, static_cast<long>(limits.stall.count()));
  curl_easy_setopt(c, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(limits.maxBytes));
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L); // never a signal in a threaded agent
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, &receive);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, &download);
  curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(c, CURLOPT_USERAGENT, "Kestrin");
  CURLcode result = curl_easy_perform(c);
  if (download.tooLarge || result == CURLE_FILESIZE_EXCEEDED) {
    return Failure{fmt::format("{} is larger than the {} bytes allowed", url, limits.maxBytes)};
  }
  if (result != CURLE_OK) {
    return Failure{fmt::format("cannot download {}: {}", url,
                               error[0] != '\0' ? error : curl_easy_strerror(result))};
  }
  long status = 0;
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
  if (status < 200 || status > 299) {
    return Failure{fmt::format("{} answered HTTP status {}", url, status)};
  }
  return std::move(download.body);
}

} // namespace kestrin::platform
