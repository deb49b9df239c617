// A stand-in audit server on loopback that shows the events that reach it.

#include "Arguments.h"
#include "server/AuditServer.h"
#include "server/EventTable.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

namespace {

using namespace sentrova::testing;

constexpr const char* kUsage =
    R"(usage: audit-server [--port N] [--https] [--client-certificate] [--answer FILE] [--table | --json | --quiet]

  --port N              listen on this port of the loopback interface; 0, the default, takes any free port
  --https               speak TLS, with a certificate made at the start
  --client-certificate  ask clients for a certificate
  --answer FILE         answer each configuration sync with this file (default {}). It is read for each answer.
                        If given several times, the files are used in turn, and the last one is repeated
  --table               show each event as a line of a table (the default)
  --json                show each event as JSON, one per line
  --quiet               show no events
  --help                this text
  --version             the version

SIGTERM or SIGINT ends it with a summary.
)";

enum class Display { table, json, quiet };

struct Options {
    AuditServer::Configuration server;
    std::vector<std::string> answerFiles;
    Display display = Display::table;
};

Options optionsFrom(Arguments arguments) {
    Options options;
    while (const auto argument = arguments.next()) {
        if (*argument == "--port") {
            options.server.port = static_cast<int>(arguments.numberOf(*argument, 0, 65535));
        } else if (*argument == "--answer") {
            options.answerFiles.emplace_back(arguments.valueOf(*argument));
        } else if (*argument == "--https") {
            options.server.https = true;
        } else if (*argument == "--client-certificate") {
            options.server.tls.asksForClientCertificate = true;
        } else if (*argument == "--table") {
            options.display = Display::table;
        } else if (*argument == "--json") {
            options.display = Display::json;
        } else if (*argument == "--quiet") {
            options.display = Display::quiet;
        } else {
            throw unknownArgument(*argument);
        }
    }
    return options;
}

void print(const std::string& line) {
    fmt::print("{}\n", line);
    // Line-buffered, so that a reader of a pipe gets each line at once.
    std::fflush(stdout);
}

void serve(Options options) {
    // Blocked before threads are created, so that no thread receives them.
    sigset_t endings;
    sigemptyset(&endings);
    sigaddset(&endings, SIGTERM);
    sigaddset(&endings, SIGINT);
    pthread_sigmask(SIG_BLOCK, &endings, nullptr);

    if (options.display != Display::quiet) {
        options.server.onEvent = [display = options.display](const std::string& event) {
            print(display == Display::table ? eventTableLine(event) : withoutControls(event));
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
        print(eventTableHeader());
    }
    int ending = 0;
    sigwait(&endings, &ending);
    print(fmt::format("{} requests, {} events", server.requests().size(), server.events().size()));
}

}  // namespace

int main(int argc, char** argv) {
    return runTool("audit-server", kUsage, argc, argv,
                   [](const Arguments& arguments) { serve(optionsFrom(arguments)); });
}
