#include "core/TaskManager.h"

#include "foundation/run/NotificationCenter.h"
#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"
#include "platform/SystemPath.h"

namespace sentrova {

TaskManager::TaskManager(const std::string& launchPath, std::vector<std::string> withArgs)
    : prauditTask_(platform::systemPath(launchPath), std::move(withArgs)) {}

TaskManager::~TaskManager() {
    wait();
}

void TaskManager::launchTaskSync() {
    prauditTask_.launch();
    // Reads all output before waiting for the exit: a program with much output would block on a full pipe.
    output_ = prauditTask_.readDataToEndOfFile();
    prauditTask_.waitUntilExit();
    taskStatus_ = static_cast<std::int8_t>(prauditTask_.terminationStatus());
}

void TaskManager::launchTaskAsync() {
    prauditTask_.launch();
    reader_ = startThread([this] {
        runGuarded("TaskManager", [this] {
            for (bool ended = false; !ended;) {
                auto piece = prauditTask_.readAvailableData();
                ended = piece.empty();
                NotificationCenter::defaultCenter().post(
                    {kReadCompletionNotification, this, {{kOutputItem, std::move(piece)}}});
            }
        });
    });
}

void TaskManager::stop() {
    prauditTask_.terminate();
}

void TaskManager::wait() {
    if (reader_.joinable()) {
        reader_.join();
    }
    prauditTask_.waitUntilExit();
}

}  // namespace sentrova
