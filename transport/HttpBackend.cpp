#include "transport/internal/HttpBackend.h"

#include <curl/curl.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "wire/HttpWire.h"

namespace Arvant {
namespace Net {
namespace AvQuorvel {
namespace Transport {

namespace {

using Wire::encodeField;
using Wire::transportCodeForStatus;

// The daemon decides the real body limit (it answers 413); this one only keeps
// a runaway caller from buffering without end before anything is sent.
constexpr std::size_t kMaxRequestBodyBytes = 256 * 1024 * 1024;
constexpr std::size_t kMaxResponseBytes = 1024 * 1024 * 1024;

bool readMilliseconds(const char* variable, long& value, std::string& problem) {
    const char* text = std::getenv(variable);
    if (text == nullptr || *text == '\0') {
        return true;
    }
    char* end = nullptr;
    errno = 0;
    const long parsed = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || parsed <= 0) {
        problem = std::string(variable) + " must be a positive number of milliseconds, not \"" +
                  text + "\".";
        return false;
    }
    value = parsed;
    return true;
}

// curl_global_init is not thread-safe in every libcurl; it runs once, on the
// first exchange. curl_global_cleanup is never called: other threads may still
// hold easy handles when the process ends.
bool startCurl(std::string& problem) {
    static std::once_flag once;
    static CURLcode result = CURLE_OK;
    std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
    if (result != CURLE_OK) {
        problem = std::string("libcurl could not be initialised: ") + curl_easy_strerror(result);
        return false;
    }
    return true;
}

// One easy handle per thread, kept for the thread's life so its connection to
// the daemon is reused by the next exchange.
class ThreadHandle {
public:
    ThreadHandle() : handle(curl_easy_init()) {}
    ~ThreadHandle() {
        if (handle != nullptr) {
            curl_easy_cleanup(handle);
        }
    }
    ThreadHandle(const ThreadHandle&) = delete;
    ThreadHandle& operator=(const ThreadHandle&) = delete;

    CURL* handle;
};

struct Collector {
    std::string* bytes;
    bool overflow = false;
};

size_t collect(char* data, size_t size, size_t count, void* context) {
    Collector& collector = *static_cast<Collector*>(context);
    const size_t length = size * count;
    if (collector.bytes->size() + length > kMaxResponseBytes) {
        collector.overflow = true;
        return 0;  // libcurl stops with CURLE_WRITE_ERROR
    }
    collector.bytes->append(data, length);
    return length;
}

struct CurlList {
    curl_slist* head = nullptr;
    ~CurlList() { curl_slist_free_all(head); }
    bool add(const std::string& line) {
        curl_slist* grown = curl_slist_append(head, line.c_str());
        if (grown == nullptr) {
            return false;
        }
        head = grown;
        return true;
    }
};

// Loopback never goes through a proxy; other hosts follow the usual
// http_proxy / no_proxy variables.
std::string noProxyList() {
    std::string list = "localhost,127.0.0.1,::1";
    for (const char* variable : {"no_proxy", "NO_PROXY"}) {
        const char* value = std::getenv(variable);
        if (value != nullptr && *value != '\0') {
            list += ",";
            list += value;
            break;
        }
    }
    return list;
}

std::string trimmed(const std::string& text) {
    std::size_t end = text.size();
    while (end > 0 && (text[end - 1] == '\n' || text[end - 1] == '\r')) {
        --end;
    }
    return text.substr(0, end);
}

class HttpBackend : public Backend {
public:
    explicit HttpBackend(const HttpSettings& settings)
        : settings(settings),
          endpoint(baseUrl(settings.url) + Wire::kExchangePath),
          noProxy(noProxyList()) {}

    std::size_t maxBodyBytes() const override { return kMaxRequestBodyBytes; }

    bool exchange(const HeaderFields& headers, const std::string& body, std::string& response,
                  BackendFailure& failure) override {
        std::string problem = settings.problem;
        if (problem.empty()) {
            startCurl(problem);
        }
        if (!problem.empty()) {
            return fail(failure, AVQVL_UNREACHABLE, problem);
        }
        thread_local ThreadHandle thread;
        CURL* curl = thread.handle;
        if (curl == nullptr) {
            return fail(failure, AVQVL_LIMIT, "libcurl could not create a handle.");
        }

        CurlList lines;
        for (const auto& field : headers) {
            const std::string line =
                std::string(Wire::kFieldHeaderName) + ": " + encodeField(field.first, field.second);
            if (line.size() > Wire::kMaxFieldLineBytes) {
                return fail(failure, AVQVL_LIMIT,
                            "The header field \"" + field.first +
                                "\" cannot travel to the Quorvel service: encoded it takes " +
                                std::to_string(line.size()) + " bytes, more than the " +
                                std::to_string(Wire::kMaxFieldLineBytes) +
                                " a header line may hold.");
            }
            if (!lines.add(line)) {
                return fail(failure, AVQVL_LIMIT, "Out of memory for the header fields.");
            }
        }
        // No "Expect: 100-continue" wait: the whole request goes out at once.
        if (!lines.add("Content-Type: application/octet-stream") || !lines.add("Expect:")) {
            return fail(failure, AVQVL_LIMIT, "Out of memory for the header fields.");
        }

        response.clear();
        Collector collector{&response};
        char errorText[CURL_ERROR_SIZE] = {0};
        curl_easy_reset(curl);  // keeps the open connection, clears the options
        curl_easy_setopt(curl, CURLOPT_URL, endpoint.c_str());
        curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_TCP_NODELAY, 1L);
        curl_easy_setopt(curl, CURLOPT_NOPROXY, noProxy.c_str());
        curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, settings.timeoutMs);
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, settings.connectTimeoutMs);
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, lines.head);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &collector);
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);

        const CURLcode result = curl_easy_perform(curl);
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);  // the list dies here
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
        if (result != CURLE_OK) {
            const std::string cause = *errorText != '\0' ? errorText : curl_easy_strerror(result);
            response.clear();
            return failTransfer(failure, result, collector.overflow, cause);
        }
        long status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        if (status == 200) {
            return true;
        }
        const std::string message = trimmed(response);
        response.clear();
        const int32_t code = transportCodeForStatus(static_cast<int>(status));
        if (code == AVQVL_OTHER_ANSWER) {
            return fail(failure, code,
                        "The Quorvel service at " + settings.url + " answered status " +
                            std::to_string(status) + ": " + message);
        }
        return fail(failure, code, message);
    }

private:
    static std::string baseUrl(std::string url) {
        while (!url.empty() && url.back() == '/') {
            url.pop_back();
        }
        return url;
    }

    static bool fail(BackendFailure& failure, int32_t code, const std::string& message) {
        failure.code = code;
        failure.message = message;
        return false;
    }

    bool failTransfer(BackendFailure& failure, CURLcode result, bool overflow,
                      const std::string& cause) const {
        const std::string where = "the Quorvel service at " + settings.url;
        switch (result) {
            case CURLE_OPERATION_TIMEDOUT:
                return fail(failure, AVQVL_TIMED_OUT,
                            "No answer from " + where + " within the time-out (" +
                                std::to_string(settings.timeoutMs) + " ms, connect " +
                                std::to_string(settings.connectTimeoutMs) + " ms): " + cause);
            case CURLE_GOT_NOTHING:
            case CURLE_SEND_ERROR:
            case CURLE_RECV_ERROR:
            case CURLE_PARTIAL_FILE:
                return fail(failure, AVQVL_CONNECTION_LOST,
                            "The connection to " + where + " broke during the exchange: " + cause);
            case CURLE_WRITE_ERROR:
                if (overflow) {
                    return fail(failure, AVQVL_LIMIT,
                                "The answer of " + where + " is longer than " +
                                    std::to_string(kMaxResponseBytes) + " bytes.");
                }
                break;
            case CURLE_OUT_OF_MEMORY:
                return fail(failure, AVQVL_LIMIT,
                            "libcurl ran out of memory talking to " + where + ".");
            default:
                break;
        }
        return fail(failure, AVQVL_UNREACHABLE, "Cannot reach " + where + ": " + cause);
    }

    const HttpSettings settings;
    const std::string endpoint;
    const std::string noProxy;
};

}  // namespace

bool httpSettingsFromEnvironment(HttpSettings& settings) {
    const char* url = std::getenv("QUORVEL_URL");
    if (url == nullptr || *url == '\0') {
        return false;
    }
    settings.url = url;
    if (settings.url.compare(0, 7, "http://") != 0 && settings.url.compare(0, 8, "https://") != 0) {
        settings.problem =
            "QUORVEL_URL must start with http:// or https://, not \"" + settings.url + "\".";
        return true;
    }
    if (readMilliseconds("QUORVEL_TIMEOUT_MS", settings.timeoutMs, settings.problem)) {
        readMilliseconds("QUORVEL_CONNECT_TIMEOUT_MS", settings.connectTimeoutMs, settings.problem);
    }
    return true;
}

std::unique_ptr<Backend> makeHttpBackend(const HttpSettings& settings) {
    return std::unique_ptr<Backend>(new HttpBackend(settings));
}

}  // namespace Transport
}  // namespace AvQuorvel
}  // namespace Net
}  // namespace Arvant
