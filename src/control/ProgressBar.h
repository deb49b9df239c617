// A progress bar on the terminal of standard error.

#pragma once

#include <chrono>
#include <cstdint>

namespace sentrova::control {

// Draws nothing if it is not shown. Not thread-safe.
class ProgressBar {
  public:
    // `total` is in bytes; 0 if it is not known.
    ProgressBar(bool isShown, std::uint64_t total);
    // Removes the bar.
    ~ProgressBar() { hide(); }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // Draws the bar, at most ten times a second.
    void advance(std::size_t bytes);
    // Removes the bar until the next advance, so that a line can be written.
    void hide();

  private:
    void draw();

    const bool isShown_;
    const std::uint64_t total_;
    std::uint64_t done_ = 0;
    bool isDrawn_ = false;
    std::chrono::steady_clock::time_point drawn_;
};

}  // namespace sentrova::control
