// Random histories: runs steps that follow from a seed, and shrinks the steps of a history that fails.

#pragma once

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {

struct Step {
    unsigned kind = 0;
    unsigned random = 0;
};

// The wanted share of each kind, by number.
using Shares = std::vector<unsigned>;

inline std::vector<Step> historyOf(unsigned seed, const Shares& shares) {
    std::mt19937 random(seed);
    std::discrete_distribution<unsigned> kinds(shares.begin(), shares.end());
    std::vector<Step> steps(10 + random() % 30);
    for (auto& step : steps) {
        step = {kinds(random), static_cast<unsigned>(random())};
    }
    return steps;
}

// Gives what is wrong after the steps; empty if nothing is.
using Outcome = std::function<std::string(const std::vector<Step>& steps, unsigned seed)>;

// Leaves out what the failure does not need.
inline std::vector<Step> shrunk(std::vector<Step> steps, unsigned seed, const Outcome& outcomeOf) {
    for (std::size_t i = 0; i < steps.size();) {
        auto fewer = steps;
        fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(i));
        if (outcomeOf(fewer, seed).empty()) {
            ++i;
        } else {
            steps = std::move(fewer);
        }
    }
    return steps;
}

// Runs `count` histories. SENTROVA_HISTORIES and SENTROVA_HISTORY_SEED override the number and the first seed.
inline void runHistories(unsigned count, const Shares& shares, const Outcome& outcomeOf) {
    const auto setting = [](const char* name, unsigned fallback) {
        const char* const text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
        return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : fallback;
    };
    const auto first = setting("SENTROVA_HISTORY_SEED", 1);
    const auto end = first + setting("SENTROVA_HISTORIES", count);
    for (unsigned seed = first; seed < end; ++seed) {
        const auto steps = historyOf(seed, shares);
        const auto wrong = outcomeOf(steps, seed);
        if (!wrong.empty()) {
            std::string text;
            for (const auto& step : shrunk(steps, seed, outcomeOf)) {
                text += fmt::format("{}:{} ", step.kind, step.random);
            }
            FAIL() << "seed " << seed << ": " << wrong << "steps " << text;
        }
    }
}

}  // namespace sentrova::testing
