// A stand-in audit server on loopback that shows the events that reach it.

#include "server/EventTable.h"
#include "support/AuditServer.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace {

using sentrova::testing::AuditServer;

constexpr const char* kUsage =
    "usage: audit-server [--port N] [--https] [--client-certificate] [--answer FILE] [--table | --json | --quiet]\n"
    "\n"
    "  --port N              listen on this port of the loopback; 0, the default, takes any that is free\n"
    "  --https               speak TLS, with a certificate made at the start\n"
    "  --client-certificate  ask clients for a certificate\n"
    "  --answer FILE         answer a configuration sync with this file, read anew each time; default {}. Given "
    "several\n"
    "                        times, the files are the answers one after another, and the last one stays\n"
    "  --table               show a line of a table for each event (the default)\n"
    "  --json                show each event as JSON, one a line\n"
    "  --quiet               show no events\n"
    "\n"
    "SIGTERM or SIGINT ends it with a summary.\n";

enum class Display { table, json, quiet };

struct Options {
    AuditServer::Configuration server;
    std::vector<std::string> answerFiles;
    Display display = Display::table;
};

// Nothing when the arguments make no sense.
std::optional<Options> optionsFrom(const std::vector<std::string_view>& arguments) {
    Options options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const auto argument = arguments[i];
        const bool hasValue = i + 1 < arguments.size();
        if (argument == "--port" && hasValue) {
            const auto text = arguments[++i];
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), options.server.port);
            if (error != std::errc() || end != text.data() + text.size() || options.server.port < 0 ||
                options.server.port > 65535) {
                return std::nullopt;
            }
        } else if (argument == "--answer" && hasValue) {
            options.answerFiles.emplace_back(arguments[++i]);
        } else if (argument == "--https") {
            options.server.https = true;
        } else if (argument == "--client-certificate") {
            options.server.tls.asksForClientCertificate = true;
        } else if (argument == "--table") {
            options.display = Display::table;
        } else if (argument == "--json") {
            options.display = Display::json;
        } else if (argument == "--quiet") {
            options.display = Display::quiet;
        } else {
            return std::nullopt;
        }
    }
    return options;
}

void print(const std::string& line) {
    fmt::print("{}\n", line);
    // Also into a pipe, each line as it comes.
    std::fflush(stdout);
}

int serve(Options options) {
    // Blocked before there are threads, so that they reach none of them.
    sigset_t endings;
    sigemptyset(&endings);
    sigaddset(&endings, SIGTERM);
    sigaddset(&endings, SIGINT);
    pthread_sigmask(SIG_BLOCK, &endings, nullptr);

    if (options.display != Display::quiet) {
        options.server.onEvent = [display = options.display](const std::string& event) {
            print(display == Display::table ? sentrova::testing::eventTableLine(event)
                                            : sentrova::testing::withoutControls(event));
        };
    }
    if (!options.answerFiles.empty()) {
        options.server.onSync = [&options, answered = std::size_t{0}]() mutable {
            const auto& path = options.answerFiles[std::min(answered++, options.answerFiles.size() - 1)];
            std::ifstream file(path, std::ios::binary);
            return file ? std::optional(std::string(std::istreambuf_iterator<char>(file), {})) : std::nullopt;
        };
    }
    const AuditServer server(options.server);
    print("audit-server listening on " + server.url());
    if (options.display == Display::table) {
        print(sentrova::testing::eventTableHeader());
    }
    int ending = 0;
    sigwait(&endings, &ending);
    print(fmt::format("{} requests, {} events", server.requests().size(), server.events().size()));
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc == 2 && std::string_view(argv[1]) == "--help") {
            fmt::print("{}", kUsage);
            return EXIT_SUCCESS;
        }
        const auto options = optionsFrom({argv + 1, argv + argc});
        if (!options) {
            fmt::print(stderr, "{}", kUsage);
            return 64;
        }
        return serve(*options);
    } catch (const std::exception& exception) {
        fmt::print(stderr, "audit-server: {}\n", exception.what());
        return EXIT_FAILURE;
    }
}
