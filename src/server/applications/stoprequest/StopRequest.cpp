#include "server/applications/stoprequest/StopRequest.h"

#include <curl/curl.h>

#include <memory>

namespace {

/// Set up when the module is loaded, taken down when the process ends.
class CurlInitializer {
public:
    CurlInitializer() { curl_global_init(CURL_GLOBAL_ALL); }
    ~CurlInitializer() { curl_global_cleanup(); }
    CurlInitializer(const CurlInitializer&) = delete;
    CurlInitializer& operator=(const CurlInitializer&) = delete;
};

const CurlInitializer g_curlInitializer;

} // namespace

int KxSendStopRequest(const char* url, long timeoutSeconds)
{
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> request(curl_easy_init(), &curl_easy_cleanup);
    if (!request) {
        return -1;
    }
    curl_easy_setopt(request.get(), CURLOPT_URL, url);
    curl_easy_setopt(request.get(), CURLOPT_TIMEOUT, timeoutSeconds);
    return curl_easy_perform(request.get());
}
