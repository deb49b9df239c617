// The names of keys, folders and files that the agent shares with its server and with the files on disk.

#pragma once

#include <string_view>

namespace sentrova {

class GlobalConstants {
  public:
    GlobalConstants() = delete;

    static constexpr std::string_view AGENT_PORT = "AgentPort";
    static constexpr std::string_view AGENT_PROTOCOL = "AgentProtocol";
    static constexpr std::string_view NAT_PROTOCOL = "NATProtocol";
    static constexpr std::string_view NAT_SERVER = "NATServerName";
    static constexpr std::string_view NAT_PORT = "NATPort";
    static constexpr std::string_view SERVER_PORT = "Port";
    static constexpr std::string_view PROTOCOL = "Protocol";
    static constexpr std::string_view SERVERFQDN = "ServerFQDN";
    static constexpr std::string_view SERVERIP = "ServerIP";
    static constexpr std::string_view SERVERNAME = "ServerName";
    static constexpr std::string_view REALTIME = "IsRealTime";
    static constexpr std::string_view TIMESTAMP_LE = "TimestampOfLastEvent";
    static constexpr std::string_view LOG_LEVEL = "LogLevel";
    static constexpr std::string_view DURABLE_DELIVERY = "DurableDelivery";
    static constexpr std::string_view EVENTS_TO_READ = "EventsToRead";
    static constexpr std::string_view IS_ENABLED = "isEnabled";
    static constexpr std::string_view FETCH_INTERVAL = "FetchInterval";
    static constexpr std::string_view NUMBER_OF_EVENTS = "NumberofEventsPerRequest";
    static constexpr std::string_view MAX_DATA_SIZE = "MaxEventDataSize";
    static constexpr std::string_view AGENT_GUID = "AgentGuid";
    static constexpr std::string_view DOMAIN_ID = "DomainID";
    static constexpr std::string_view DOMAIN_NAME = "DomainName";
    static constexpr std::string_view AGENT_NAME = "AgentName";
    static constexpr std::string_view AGENT_AUTHENTICATION_ID = "AgentAuthID";
    static constexpr std::string_view ORG_ACCESS_KEY = "OrgAccessKey";
    static constexpr std::string_view AGENT_UID = "AgentUID";
    static constexpr std::string_view SYNCTIME = "SyncTime";
    static constexpr std::string_view LASTSCHEDULERUNAT = "ScheduleRunAt";
    static constexpr std::string_view RECENT_EVENT_TIME_MILLIS = "RecentEventTimeMillis";
    static constexpr std::string_view AGENT_VERSION = "AgentVersion";
    static constexpr std::string_view MAJOR_VERSION = "majorVersion";
    static constexpr std::string_view MINOR_VERSION = "minorVersion";
    static constexpr std::string_view PATCH_VERSION = "patchVersion";
    static constexpr std::string_view COMMUNICATION_TYPE = "CommunicationType";

    // The task list's key, and the keys of its entries. ScheduleHandler.h describes them.
    static constexpr std::string_view SCHEDULE_TASKS = "ScheduleTasks";
    static constexpr std::string_view TASK_NAME = "TaskName";
    static constexpr std::string_view RUN_AT = "RunAt";
    static constexpr std::string_view INTERVAL_SECONDS = "IntervalSeconds";
    static constexpr std::string_view REPEAT = "Repeat";
    static constexpr std::string_view TASK_STATUS = "TaskStatus";
    static constexpr std::string_view TASK_ENABLED = "Enable";
    static constexpr std::string_view CLASS_NAME = "className";
    static constexpr std::string_view SELECTOR = "selector";
    static constexpr std::string_view LAST_SCHEDULE_TIME = "LastScheduleTime";
    static constexpr std::string_view LAST_SCHEDULE_TIME_IN_MILLIS = "LastScheduleTimeInMillis";

    // Relative to the working directory, which is the program folder.
    static constexpr std::string_view BIN_PATH = "../bin";
    static constexpr std::string_view CONF_PATH = "../conf";
    static constexpr std::string_view LOG_PATH = "../logs";
    static constexpr std::string_view LOG_ARCHIVE_PATH = "../logs/archive/";

    // The files of the configuration folder.
    static constexpr std::string_view SERVER_INFO_FILE = "Serverinfo.plist";
    static constexpr std::string_view MY_CONFIGURATIONS_FILE = "myconfigurations.plist";
    static constexpr std::string_view SCHEDULES_FILE = "schedules.plist";
    static constexpr std::string_view LOG_FILE_TABLE = "logfile.plist";
    static constexpr std::string_view CURRENT_LOGINS_FILE = "currentLogins";
    static constexpr std::string_view AGENT_LOCK_FILE = "agent.lock";

    // This server name means "none", as the empty name does.
    static constexpr std::string_view NO_NAT_SERVER = "-";
    // The pass phrase for the agent's identity if the server has assigned no id to the agent.
    static constexpr std::string_view FALLBACK_PASS_PHRASE = "XEVORTANIMB";
};

}  // namespace sentrova
