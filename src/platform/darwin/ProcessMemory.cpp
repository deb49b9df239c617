#include "platform/ProcessMemory.h"

#include <mach/mach.h>

namespace sentrova::platform {

std::optional<std::uint64_t> residentMemory() {
    mach_task_basic_info info{};
    mach_msg_type_number_t count = MACH_TASK_BASIC_INFO_COUNT;
    const auto status =
        ::task_info(mach_task_self(), MACH_TASK_BASIC_INFO, reinterpret_cast<task_info_t>(&info), &count);
    return status == KERN_SUCCESS ? std::optional<std::uint64_t>(info.resident_size) : std::nullopt;
}

}  // namespace sentrova::platform
