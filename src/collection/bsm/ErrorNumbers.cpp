#include "collection/bsm/ErrorNumbers.h"

#include <array>
#include <cerrno>
#include <string_view>

namespace sentrova::bsm {

namespace {

constexpr int kAbsent = -1;

// Parses the number to which a macro of <cerrno> expands. A name that this host does not define stays a name, and
// counts as absent.
constexpr int hostError(std::string_view text) {
    int number = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9') {
            return kAbsent;
        }
        number = number * 10 + (digit - '0');
    }
    return number;
}

#define TEXT_OF(expansion) #expansion
#define HOST_ERROR(name) hostError(TEXT_OF(name))

static_assert(HOST_ERROR(ENOENT) == ENOENT, "this host's <cerrno> does not define its errors as plain numbers");

struct Entry {
    std::uint8_t status;
    int hostError;
};

// Statuses 61, 62, 63 and 128 are assigned, but the platform's library does not convert them.
constexpr auto kEntries = std::to_array<Entry>({
    {0, 0},
    {1, HOST_ERROR(EPERM)},
    {2, HOST_ERROR(ENOENT)},
    {3, HOST_ERROR(ESRCH)},
    {4, HOST_ERROR(EINTR)},
    {5, HOST_ERROR(EIO)},
    {6, HOST_ERROR(ENXIO)},
    {7, HOST_ERROR(E2BIG)},
    {8, HOST_ERROR(ENOEXEC)},
    {9, HOST_ERROR(EBADF)},
    {10, HOST_ERROR(ECHILD)},
    {11, HOST_ERROR(EAGAIN)},
    {12, HOST_ERROR(ENOMEM)},
    {13, HOST_ERROR(EACCES)},
    {14, HOST_ERROR(EFAULT)},
    {15, HOST_ERROR(ENOTBLK)},
    {16, HOST_ERROR(EBUSY)},
    {17, HOST_ERROR(EEXIST)},
    {18, HOST_ERROR(EXDEV)},
    {19, HOST_ERROR(ENODEV)},
    {20, HOST_ERROR(ENOTDIR)},
    {21, HOST_ERROR(EISDIR)},
    {22, HOST_ERROR(EINVAL)},
    {23, HOST_ERROR(ENFILE)},
    {24, HOST_ERROR(EMFILE)},
    {25, HOST_ERROR(ENOTTY)},
    {26, HOST_ERROR(ETXTBSY)},
    {27, HOST_ERROR(EFBIG)},
    {28, HOST_ERROR(ENOSPC)},
    {29, HOST_ERROR(ESPIPE)},
    {30, HOST_ERROR(EROFS)},
    {31, HOST_ERROR(EMLINK)},
    {32, HOST_ERROR(EPIPE)},
    {33, HOST_ERROR(EDOM)},
    {34, HOST_ERROR(ERANGE)},
    {35, HOST_ERROR(ENOMSG)},
    {36, HOST_ERROR(EIDRM)},
    {37, HOST_ERROR(ECHRNG)},
    {38, HOST_ERROR(EL2NSYNC)},
    {39, HOST_ERROR(EL3HLT)},
    {40, HOST_ERROR(EL3RST)},
    {41, HOST_ERROR(ELNRNG)},
    {42, HOST_ERROR(EUNATCH)},
    {43, HOST_ERROR(ENOCSI)},
    {44, HOST_ERROR(EL2HLT)},
    {45, HOST_ERROR(EDEADLK)},
    {46, HOST_ERROR(ENOLCK)},
    {47, HOST_ERROR(ECANCELED)},
    {48, HOST_ERROR(ENOTSUP)},
    {49, HOST_ERROR(EDQUOT)},
    {50, HOST_ERROR(EBADE)},
    {51, HOST_ERROR(EBADR)},
    {52, HOST_ERROR(EXFULL)},
    {53, HOST_ERROR(ENOANO)},
    {54, HOST_ERROR(EBADRQC)},
    {55, HOST_ERROR(EBADSLT)},
    {56, HOST_ERROR(EDEADLOCK)},
    {57, HOST_ERROR(EBFONT)},
    {58, HOST_ERROR(EOWNERDEAD)},
    {59, HOST_ERROR(ENOTRECOVERABLE)},
    {60, HOST_ERROR(ENOSTR)},
    {64, HOST_ERROR(ENONET)},
    {65, HOST_ERROR(ENOPKG)},
    {66, HOST_ERROR(EREMOTE)},
    {67, HOST_ERROR(ENOLINK)},
    {68, HOST_ERROR(EADV)},
    {69, HOST_ERROR(ESRMNT)},
    {70, HOST_ERROR(ECOMM)},
    {71, HOST_ERROR(EPROTO)},
    {74, HOST_ERROR(EMULTIHOP)},
    {77, HOST_ERROR(EBADMSG)},
    {78, HOST_ERROR(ENAMETOOLONG)},
    {79, HOST_ERROR(EOVERFLOW)},
    {80, HOST_ERROR(ENOTUNIQ)},
    {81, HOST_ERROR(EBADFD)},
    {82, HOST_ERROR(EREMCHG)},
    {83, HOST_ERROR(ELIBACC)},
    {84, HOST_ERROR(ELIBBAD)},
    {85, HOST_ERROR(ELIBSCN)},
    {86, HOST_ERROR(ELIBMAX)},
    {87, HOST_ERROR(ELIBEXEC)},
    {88, HOST_ERROR(EILSEQ)},
    {89, HOST_ERROR(ENOSYS)},
    {90, HOST_ERROR(ELOOP)},
    {91, HOST_ERROR(ERESTART)},
    {92, HOST_ERROR(ESTRPIPE)},
    {93, HOST_ERROR(ENOTEMPTY)},
    {94, HOST_ERROR(EUSERS)},
    {95, HOST_ERROR(ENOTSOCK)},
    {96, HOST_ERROR(EDESTADDRREQ)},
    {97, HOST_ERROR(EMSGSIZE)},
    {98, HOST_ERROR(EPROTOTYPE)},
    {99, HOST_ERROR(ENOPROTOOPT)},
    {120, HOST_ERROR(EPROTONOSUPPORT)},
    {121, HOST_ERROR(ESOCKTNOSUPPORT)},
    {122, HOST_ERROR(EOPNOTSUPP)},
    {123, HOST_ERROR(EPFNOSUPPORT)},
    {124, HOST_ERROR(EAFNOSUPPORT)},
    {125, HOST_ERROR(EADDRINUSE)},
    {126, HOST_ERROR(EADDRNOTAVAIL)},
    {127, HOST_ERROR(ENETDOWN)},
    {129, HOST_ERROR(ENETRESET)},
    {130, HOST_ERROR(ECONNABORTED)},
    {131, HOST_ERROR(ECONNRESET)},
    {132, HOST_ERROR(ENOBUFS)},
    {133, HOST_ERROR(EISCONN)},
    {134, HOST_ERROR(ENOTCONN)},
    {143, HOST_ERROR(ESHUTDOWN)},
    {144, HOST_ERROR(ETOOMANYREFS)},
    {145, HOST_ERROR(ETIMEDOUT)},
    {146, HOST_ERROR(ECONNREFUSED)},
    {147, HOST_ERROR(EHOSTDOWN)},
    {148, HOST_ERROR(EHOSTUNREACH)},
    {149, HOST_ERROR(EALREADY)},
    {150, HOST_ERROR(EINPROGRESS)},
    {151, HOST_ERROR(ESTALE)},
    {190, HOST_ERROR(EPROCLIM)},
    {191, HOST_ERROR(EBADRPC)},
    {192, HOST_ERROR(ERPCMISMATCH)},
    {193, HOST_ERROR(EPROGUNAVAIL)},
    {194, HOST_ERROR(EPROGMISMATCH)},
    {195, HOST_ERROR(EPROCUNAVAIL)},
    {196, HOST_ERROR(EFTYPE)},
    {197, HOST_ERROR(EAUTH)},
    {198, HOST_ERROR(ENEEDAUTH)},
    {199, HOST_ERROR(ENOATTR)},
    {204, HOST_ERROR(EPWROFF)},
    {205, HOST_ERROR(EDEVERR)},
    {206, HOST_ERROR(EBADEXEC)},
    {207, HOST_ERROR(EBADARCH)},
    {208, HOST_ERROR(ESHLIBVERS)},
    {209, HOST_ERROR(EBADMACHO)},
    {210, HOST_ERROR(EPOLICY)},
    {211, HOST_ERROR(EDOTDOT)},
    {212, HOST_ERROR(EUCLEAN)},
    {213, HOST_ERROR(ENOTNAM)},
    {214, HOST_ERROR(ENAVAIL)},
    {215, HOST_ERROR(EISNAM)},
    {216, HOST_ERROR(EREMOTEIO)},
    {217, HOST_ERROR(ENOMEDIUM)},
    {218, HOST_ERROR(EMEDIUMTYPE)},
    {219, HOST_ERROR(ENOKEY)},
    {220, HOST_ERROR(EKEYEXPIRED)},
    {221, HOST_ERROR(EKEYREVOKED)},
    {222, HOST_ERROR(EKEYREJECTED)},
    {223, HOST_ERROR(ENOTCAPABLE)},
    {224, HOST_ERROR(ECAPMODE)},
    {225, HOST_ERROR(EINTEGRITY)},
});

#undef HOST_ERROR
#undef TEXT_OF

constexpr std::array<int, 256> byStatus() {
    std::array<int, 256> table{};
    table.fill(kAbsent);
    for (const auto& entry : kEntries) {
        table[entry.status] = entry.hostError;
    }
    return table;
}

constexpr auto kHostErrors = byStatus();

}  // namespace

std::optional<int> au_bsm_to_errno(std::uint8_t status) {
    const int number = kHostErrors[status];
    return number == kAbsent ? std::nullopt : std::optional(number);
}

}  // namespace sentrova::bsm
