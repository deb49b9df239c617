#include "control/ProgressBar.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::chrono::milliseconds kApart{100};
constexpr double kMebibyte = 1024.0 * 1024.0;

}  // namespace

ProgressBar::ProgressBar(bool isShown, std::uint64_t total) : isShown_(isShown), total_(total) {}

void ProgressBar::advance(std::size_t bytes) {
    if (!isShown_) {
        return;
    }
    done_ += bytes;
    const auto now = std::chrono::steady_clock::now();
    if (!isDrawn_ || now - drawn_ >= kApart) {
        drawn_ = now;
        draw();
    }
}

void ProgressBar::draw() {
    isDrawn_ = true;
    const auto mebibytes = static_cast<double>(done_) / kMebibyte;
    if (total_ == 0) {
        fmt::print(stderr, "\r{:.1f} MiB read", mebibytes);
        return;
    }
    // A trail may grow while it is read.
    constexpr std::uint64_t kWidth = 30;
    const auto share = std::min(done_, total_);
    const std::string done(share * kWidth / total_, '#');
    fmt::print(stderr, "\r[{:<30}] {:3} % of {:.1f} MiB", done, share * 100 / total_,
               static_cast<double>(total_) / kMebibyte);
}

void ProgressBar::hide() {
    if (isDrawn_) {
        fmt::print(stderr, "\r\x1b[K");
        isDrawn_ = false;
    }
}

}  // namespace sentrova::control
