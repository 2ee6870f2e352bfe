// The baseline of the transport benchmarks: a reused libcurl easy handle set up as the
// library's HTTP session sets up its own (headers, options, timeout), so that both sides put
// the same bytes on the wire and the difference is the library's own work.
#pragma once

#include <curl/curl.h>

#include <string>

namespace qel::bench {

class BareCurlGet {
public:
    BareCurlGet(const std::string& url, const std::string& authorization) {
        headers_ = curl_slist_append(headers_, "Content-Type: application/json;charset=UTF-8");
        headers_ = curl_slist_append(headers_, ("Authorization: " + authorization).c_str());
        headers_ = curl_slist_append(headers_, "Expect:");
        curl_easy_setopt(easy_, CURLOPT_URL, url.c_str());
        curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers_);
        curl_easy_setopt(easy_, CURLOPT_HTTPGET, 1L);
        curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &collect);
        curl_easy_setopt(easy_, CURLOPT_WRITEDATA, &body_);
        curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy_, CURLOPT_TCP_NODELAY, 1L);
        curl_easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(easy_, CURLOPT_ACCEPT_ENCODING, "");
        curl_easy_setopt(easy_, CURLOPT_PROXY, "");
        curl_easy_setopt(easy_, CURLOPT_TIMEOUT_MS, 20000L);
    }
    ~BareCurlGet() {
        curl_easy_cleanup(easy_);
        curl_slist_free_all(headers_);
    }
    BareCurlGet(const BareCurlGet&) = delete;
    BareCurlGet& operator=(const BareCurlGet&) = delete;

    CURL* easy() const { return easy_; }
    /// The HTTP status and body of the last transfer; the body is emptied for the next one.
    long status() const {
        long status = 0;
        curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
        return status;
    }
    std::string takeBody() {
        std::string body;
        body.swap(body_);
        return body;
    }

private:
    static size_t collect(char* data, size_t size, size_t count, void* user) {
        static_cast<std::string*>(user)->append(data, size * count);
        return size * count;
    }

    CURL* easy_ = curl_easy_init();
    curl_slist* headers_ = nullptr;
    std::string body_;
};

}  // namespace qel::bench
