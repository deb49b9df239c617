#include "LoopbackServer.h"

#include "server/AuditServer.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <new>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

namespace sentrova::bench {

struct LoopbackServer::Shared {
    std::atomic<int> port = 0;
    std::atomic<std::uint64_t> arrived = 0;
};

namespace {

using Counter = std::atomic<std::uint64_t>;

[[noreturn]] void failed(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// The number of body bytes that the head of a request announces.
std::size_t contentLength(std::string_view head) {
    constexpr std::string_view kName = "Content-Length: ";
    std::size_t length = 0;
    if (const auto at = head.find(kName); at != std::string_view::npos) {
        const auto value = head.substr(at + kName.size());
        std::from_chars(value.data(), value.data() + value.size(), length);
    }
    return length;
}

void answerAll(int connection, Counter& requests) {
    constexpr std::string_view kAnswer =
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\n\r\n{}";
    std::vector<char> buffer(512 * 1024);
    std::size_t filled = 0;
    std::size_t bodyLeft = 0;
    bool inBody = false;
    for (;;) {
        const auto got = ::recv(connection, buffer.data() + filled, buffer.size() - filled, 0);
        if (got <= 0) {
            ::close(connection);
            return;
        }
        filled += static_cast<std::size_t>(got);
        if (!inBody) {
            const std::string_view text(buffer.data(), filled);
            const auto end = text.find("\r\n\r\n");
            if (end == std::string_view::npos) {
                continue;
            }
            inBody = true;
            bodyLeft = contentLength(text.substr(0, end + 2));
            filled -= end + 4;
        }
        bodyLeft -= std::min(bodyLeft, filled);
        filled = 0;
        if (bodyLeft == 0) {
            inBody = false;
            ++requests;
            if (::send(connection, kAnswer.data(), kAnswer.size(), MSG_NOSIGNAL) < 0) {
                ::close(connection);
                return;
            }
        }
    }
}

int listenOnLoopback(int& port) {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener, generic, length) != 0 || ::listen(listener, 64) != 0 ||
        ::getsockname(listener, generic, &length) != 0) {
        failed("listen");
    }
    port = ntohs(address.sin_port);
    return listener;
}

[[noreturn]] void runSink(std::atomic<int>& port, Counter& arrived) {
    int number = 0;
    const int listener = listenOnLoopback(number);
    port = number;
    for (;;) {
        const int connection = ::accept(listener, nullptr, nullptr);
        const int yes = 1;
        ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        std::thread([connection, &arrived] { answerAll(connection, arrived); }).detach();
    }
}

[[noreturn]] void runAudit(std::atomic<int>& port, Counter& arrived, bool isRefusing) {
    // The server keeps what it received. Forgetting it regularly bounds the memory of a long run.
    constexpr std::uint64_t kRemembered = 50'000;
    testing::AuditServer::Configuration configuration;
    configuration.onEvent = [&arrived](const std::string&) { ++arrived; };
    testing::AuditServer server(configuration);
    if (isRefusing) {
        server.fail({.path = testing::AuditServer::kEventsPath, .status = 503, .count = -1});
    }
    port = server.port();
    for (std::uint64_t forgotten = 0;; std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
        if (arrived > forgotten + kRemembered) {
            forgotten = arrived;
            server.reset();
        }
    }
}

}  // namespace

LoopbackServer::LoopbackServer(Kind kind)
    : shared_([] {
          void* const memory =
              ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
          if (memory == MAP_FAILED) {
              failed("mmap");
          }
          return ::new (memory) Shared;
      }()) {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) {
        failed("pipe");
    }
    process_ = ::fork();
    if (process_ == 0) {
        ::close(ends[1]);
        std::thread([end = ends[0]] {
            pollfd gone{end, POLLIN, 0};
            while (::poll(&gone, 1, -1) <= 0) {
            }
            ::_exit(0);
        }).detach();
        kind == Kind::sink ? runSink(shared_->port, shared_->arrived)
                           : runAudit(shared_->port, shared_->arrived, kind == Kind::refusing);
    }
    ::close(ends[0]);
    lifeline_ = FileDescriptor(ends[1]);
    ::fcntl(ends[1], F_SETFD, FD_CLOEXEC);
    if (process_ < 0) {
        failed("fork");
    }
    while (shared_->port == 0) {
        std::this_thread::yield();
    }
}

LoopbackServer::~LoopbackServer() {
    lifeline_.reset();
    ::waitpid(process_, nullptr, 0);
}

int LoopbackServer::port() const {
    return shared_->port;
}

std::uint64_t LoopbackServer::arrived() const {
    return shared_->arrived;
}

bool LoopbackServer::waitFor(std::uint64_t arrived, std::chrono::seconds time) const {
    const auto giveUp = std::chrono::steady_clock::now() + time;
    while (shared_->arrived < arrived) {
        if (std::chrono::steady_clock::now() > giveUp) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return true;
}

}  // namespace sentrova::bench
