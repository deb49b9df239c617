#include "BareClient.h"

#include <stdexcept>

#include <curl/curl.h>

namespace sentrova::bench {

namespace {

std::size_t ignore(char*, std::size_t size, std::size_t count, void*) {
    return size * count;
}

}  // namespace

BareClient::BareClient(std::string url, int connections) : url_(std::move(url)), multi_(curl_multi_init()) {
    for (int i = 0; i < connections; ++i) {
        auto* const handle = curl_easy_init();
        curl_easy_setopt(handle, CURLOPT_URL, url_.c_str());
        curl_easy_setopt(handle, CURLOPT_PROXY, "");
        curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
        curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, ignore);
        handles_.push_back(handle);
    }
}

BareClient::~BareClient() {
    for (auto* const handle : handles_) {
        curl_easy_cleanup(handle);
    }
    curl_multi_cleanup(multi_);
}

void BareClient::post(const std::vector<std::string>& bodies) {
    auto* const headers = curl_slist_append(curl_slist_append(nullptr, "Content-Type: text/json"), "Expect:");
    std::size_t next = 0;
    const auto send = [&](void* handle) {
        const auto& body = bodies[next++];
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.data());
        curl_multi_add_handle(multi_, handle);
    };
    for (auto* const handle : handles_) {
        if (next < bodies.size()) {
            send(handle);
        }
    }
    for (std::size_t answered = 0; answered < bodies.size();) {
        int count = 0;
        curl_multi_perform(multi_, &count);
        while (const auto* message = curl_multi_info_read(multi_, &count)) {
            auto* const handle = message->easy_handle;
            const auto code = message->data.result;
            long status = 0;
            curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
            curl_multi_remove_handle(multi_, handle);
            if (code != CURLE_OK || status != 200) {
                throw std::runtime_error("the bare client got no 200");
            }
            ++answered;
            if (next < bodies.size()) {
                send(handle);
            }
        }
        if (answered < bodies.size()) {
            curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
        }
    }
    curl_slist_free_all(headers);
}

}  // namespace sentrova::bench
