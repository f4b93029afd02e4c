// The table of every setting the agent reads, checked at compile time.

#include "framework/Settings.h"

namespace XRV {
namespace {

using K = SettingKind;
using S = SettingScope;
using F = FlagRule;
using R = OutOfRange;
using namespace when;

constexpr const char kStartup[] = "Start-up";
constexpr const char kCollection[] = "Collection";
constexpr const char* kGroups = kGroupSettingsSection;
constexpr const char kCommands[] = "Commands and scripts";
constexpr const char kSsh[] = "Scripts over SSH";
constexpr const char kLogMonitor[] = "Log monitor";
constexpr const char kSubnodes[] = "Subnodes";
constexpr const char kHttp[] = "HTTP API";

constexpr long long kMegabyte = 1024 * 1024;

// The table. Its order is the order of the enumeration and of docs/settings.md.
// clang-format off
constexpr SettingSpec kSettings[] = {
    // --- Start-up ---
    {.id = Setting::AgentRefFile, .name = "AGENT_REF_FILE", .section = kStartup,
     .defaultText = "unset",
     .effect = "the agent definition; the agent stops when it cannot be read",
     .traces = {{Always, false, "AGENT_REF_FILE = %s", "t"}}},
    {.id = Setting::InstanceName, .name = "XRV_INSTANCE_NAME", .section = kStartup,
     .defaultText = "from the command line",
     .effect = "the instance name; wins over the command line",
     .traces = {{Set, false, "Got instance name from ENV = %s\n", "t"}}},
    {.id = Setting::InstanceHostName, .name = "MVOLA_HOSTNAME", .section = kStartup,
     .defaultText = "unset",
     .effect = "a host name: an argument HOST_NAME that starts with it names the instance NAME"},
    {.id = Setting::BinPath, .name = "CDP_BINPATH", .section = kStartup, .defaultText = "unset",
     .effect = "the working directory the agent changes to at start",
     .traces = {{Set, false, "Setting working dir to %s", "t"},
                {Unset, false, "CDP_BINPATH not set, not changing directory", ""}}},
    {.id = Setting::RegisterActionCallback, .name = "CDP_DP_REGISTER_ACTION_CALLBACK",
     .kind = K::Flag, .section = kStartup, .flag = F::NotNo, .defaultValue = 1,
     .effect = "whether the agent runs actions itself",
     .traces = {{On, false, "Registering action callback. Agent code will run actions.", ""},
                {Off, false,
                 "Not registering action callback. Common shared libraries will execute actions.",
                 ""}}},
    {.id = Setting::ConfiguredHostName, .name = "CTAFW_HOSTNAME", .section = kStartup,
     .defaultText = "the system's host name",
     .effect = "the host part of the agent's managed system name (HOST:NODETYPE) and of "
               "subnode names when CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN is on"},
    {.id = Setting::ConfigFile, .name = "XRV_CONFIG_FILE", .scope = S::Environment,
     .section = kStartup, .emptyIsUnset = true, .defaultText = "unset",
     .effect = "the configuration file; unset, the agent runs on the environment alone",
     .traces = {{Unset, false, "XRV_CONFIG_FILE not set, no configuration file to read", ""}}},
    {.id = Setting::MaxFileMb, .name = "XRV_MAX_FILE_MB", .scope = S::Environment,
     .kind = K::Number, .section = kStartup, .defaultValue = 64, .wide = true,
     .scale = kMegabyte, .unit = "MB", .min = 1, .outOfRange = R::Replace, .replacement = 64,
     .effect = "the largest agent definition or configuration file read"},
    {.id = Setting::Trace, .name = "XRV_TRACE", .scope = S::Environment, .section = kStartup,
     .defaultText = "errors only",
     .effect = "what is traced, per function (docs/tracing.md)"},
    {.id = Setting::TraceFile, .name = "XRV_TRACE_FILE", .scope = S::Environment,
     .section = kStartup, .defaultText = "standard error",
     .effect = "the file trace lines are appended to"},
    {.id = Setting::StateDir, .name = "XRV_STATE_DIR", .section = kStartup, .emptyIsUnset = true,
     .defaultText = "/var/lib/xrvagent",
     .effect = "the directory, made when missing, where the agent keeps what it learns across "
               "restarts (the SSH known hosts)"},

    // --- Collection ---
    {.id = Setting::ThreadPoolSize, .name = "CDP_DP_THREAD_POOL_SIZE", .kind = K::Number,
     .section = kCollection, .defaultText = "the number of event-driven groups, else 0",
     .effect = "worker threads collecting in the background; 0: no pool",
     .traces = {{Set, false, "Thread pool size is %d", "v"},
                {Unset | On, false,
                 "CDP_DP_THREAD_POOL_SIZE not set, creating a thread pool of size %d for pure "
                 "event data sources",
                 "v"},
                {Unset | Off, false,
                 "CDP_DP_THREAD_POOL_SIZE not set, defaulting to 0-- no thread pool will be used",
                 ""}}},
    {.id = Setting::RefreshInterval, .name = "CDP_DP_REFRESH_INTERVAL", .kind = K::Number,
     .section = kCollection, .unit = "s", .min = 0, .outOfRange = R::Ignore,
     .effect = "the refresh interval of groups without their own; set, the refresh thread "
               "runs even without event-driven groups",
     .traces = {{Invalid, true, "WARNING: CDP_DP_REFRESH_INTERVAL is negative (%s), ignoring it",
                 "t"}}},
    {.id = Setting::InitialCollectionDelay, .name = "CDP_DP_INITIAL_COLLECTION_DELAY",
     .kind = K::Number, .section = kCollection, .defaultText = "one interval", .unit = "s",
     .effect = "time from start to every group's first background collection",
     .traces = {{Set, false, "Using initial collection delay of %d", "v"}}},
    {.id = Setting::ImpatientCollectorTimeout, .name = "CDP_DP_IMPATIENT_COLLECTOR_TIMEOUT",
     .kind = K::Number, .section = kCollection, .unit = "s",
     .effect = "how long a request waits for a pool collection before it is answered; 0: "
               "not used",
     .traces = {{Set, false, "CDP_DP_IMPATIENT_COLLECTOR_TIMEOUT set to %d", "v"},
                {Unset, false,
                 "CDP_DP_IMPATIENT_COLLECTOR_TIMEOUT not set, defaulting to 0-- impatient "
                 "collection will not be used",
                 ""}}},

    // --- Attribute groups ---
    {.id = Setting::GroupRefreshInterval, .name = "_REFRESH_INTERVAL", .scope = S::Group,
     .kind = K::Number, .section = kGroups, .emptyIsUnset = true,
     .defaultText = "`CDP_DP_REFRESH_INTERVAL`", .unit = "s", .min = 0,
     .outOfRange = R::Ignore, .effect = "seconds between the group's background collections",
     .traces = {{Invalid, true, "WARNING: %s is negative (%s), ignoring it", "nt"},
                {Set, false, "Attribute group %s using refresh interval %d", "gv"},
                {Unset, false,
                 "%s not set, attribute group %s will use default refresh interval, if one is "
                 "set",
                 "ng"}}},
    {.id = Setting::GroupCacheTtl, .name = "_CACHE_TTL", .scope = S::Group, .kind = K::Number,
     .section = kGroups, .emptyIsUnset = true, .defaultValue = 30, .unit = "s", .min = 1,
     .outOfRange = R::Replace, .replacement = 1, .fallback = Setting::CacheTtl,
     .effect = "how long collected rows answer requests",
     .traces = {{Set | Replaced, false, "Attribute group %s configured cache ttl  %s", "gt"},
                {Set | Replaced, false,
                 "UAClientClass timeout interval for group %s is %d seconds", "gv"},
                {Unset, false,
                 "UAClientClass timeout interval for group %s is the default 30 seconds",
                 "g"}}},
    {.id = Setting::GroupRateDeltaTimeVariation, .name = "_RATE_DELTA_TIME_VARIATION",
     .scope = S::Group, .kind = K::Number, .section = kGroups, .emptyIsUnset = true,
     .defaultValue = 2, .unit = "s", .fallback = Setting::RateDeltaTimeVariation,
     .effect = "the leeway when matching samples for rates and deltas",
     .traces = {{Set, false, "Attribute group %s using rate/delta time variation %d", "gv"},
                {Unset, false, "Attribute group %s using default rate/delta time variation %d",
                 "gv"}}},
    {.id = Setting::GroupRateDeltaInterval, .name = "_RATE_DELTA_INTERVAL", .scope = S::Group,
     .kind = K::Number, .section = kGroups, .emptyIsUnset = true, .unit = "s",
     .fallback = Setting::RateDeltaInterval,
     .effect = "the interval of rates and deltas on demand samples; 0: the last two values",
     .traces = {{Set, false, "Attribute group %s using rate/delta default interval of %d", "gv"},
                {Unset, false,
                 "%s not set, attribute group %s will use last two values for derived "
                 "rate/delta on sample requests.",
                 "ng"}}},
    {.id = Setting::GroupPureEventCacheSize, .name = "_PURE_EVENT_CACHE_SIZE",
     .scope = S::Group, .kind = K::Number, .section = kGroups, .emptyIsUnset = true,
     .defaultValue = 100, .fallback = Setting::PureEventCacheSize,
     .effect = "events kept in the group's pure-event cache",
     .traces = {{Set, false, "Attribute group %s will have custom event cache size of %d",
                 "gv"}}},
    {.id = Setting::GroupAggregateResults, .name = "_AGGREGATE_RESULTS", .scope = S::Group,
     .kind = K::Flag, .section = kGroups, .emptyIsUnset = true, .flag = F::Yes,
     .effect = "keep rows across samples, replacing them by instance name",
     .traces = {{On, false, "Attribute group %s will aggregate data", "g"},
                {Off, false, "%s not set, attribute group %s will not aggregate data", "ng"}}},
    {.id = Setting::GroupReplaceRowsByKey, .name = "_REPLACE_ROWS_BY_KEY", .scope = S::Group,
     .kind = K::Flag, .section = kGroups, .emptyIsUnset = true, .flag = F::Yes,
     .effect = "replace kept rows by new ones with the same keys; enables the purge interval",
     .traces = {{On, false,
                 "Attribute group %s will replace rows of data with new ones with the same keys",
                 "g"},
                {Off, false, "%s not set, attribute group %s will replace data on sample normally",
                 "ng"}}},
    {.id = Setting::GroupPurgeInterval, .name = "_PURGE_INTERVAL", .scope = S::Group,
     .kind = K::Number, .section = kGroups, .emptyIsUnset = true, .unit = "s",
     .effect = "age after which a kept row is purged; 0: never",
     .traces = {{On, false,
                 "Attribute group %s will purge data when it gets to be over %d seconds old",
                 "gv"},
                {Off, false,
                 "%s not set, attribute group %s will not automatically purge any data", "ng"}}},
    {.id = Setting::GroupDisableCollection, .name = "_DISABLE_COLLECTION", .scope = S::Group,
     .kind = K::Flag, .section = kGroups, .emptyIsUnset = true, .flag = F::Yes,
     .effect = "never collect the group (status 1, error code 66)",
     .traces = {{On, false, "Attribute group %s will not collect data", "g"},
                {Off, false, "%s not set, attribute group %s will collect data", "ng"}}},
    {.id = Setting::GroupOnlyForcedCollection, .name = "_ONLY_FORCED_COLLECTION",
     .scope = S::Group, .kind = K::Flag, .section = kGroups, .emptyIsUnset = true,
     .flag = F::Yes, .effect = "collect only when a client request forces it",
     .traces = {{On, false,
                 "Attribute group %s will only collect data when forced through a client "
                 "request",
                 "g"}}},
    {.id = Setting::GroupReplaceWithLatest, .name = "_REPLACE_WITH_LATEST", .scope = S::Group,
     .kind = K::Flag, .section = kGroups, .emptyIsUnset = true, .flag = F::Yes,
     .effect = "the pure-event cache keeps the latest matching event instead of the first",
     .traces = {{On, false,
                 "Attribute group %s will store its pure event cache using the latest matching "
                 "event, not the first matching event.",
                 "g"}}},
    {.id = Setting::GroupTruncateTimestamp, .name = "_TRUNCATE_TIMESTAMP", .scope = S::Group,
     .kind = K::Flag, .section = kGroups, .emptyIsUnset = true, .flag = F::Yes,
     .effect = "timestamps of kept rows are truncated to the minute",
     .traces = {{On, false, "Attribute group %s will truncate its timestamp values to the minute.",
                 "g"}}},
    {.id = Setting::CacheTtl, .name = "CDP_DP_CACHE_TTL", .kind = K::Number, .section = kGroups,
     .emptyIsUnset = true, .defaultValue = 30, .unit = "s", .min = 1,
     .outOfRange = R::Replace, .replacement = 1,
     .effect = "the cache time-to-live of groups without their own"},
    {.id = Setting::RateDeltaTimeVariation, .name = "CDP_DP_RATE_DELTA_TIME_VARIATION",
     .kind = K::Number, .section = kGroups, .emptyIsUnset = true, .defaultValue = 2,
     .unit = "s", .effect = "the rate/delta time variation of groups without their own"},
    {.id = Setting::RateDeltaInterval, .name = "CDP_DP_RATE_DELTA_INTERVAL", .kind = K::Number,
     .section = kGroups, .emptyIsUnset = true, .unit = "s",
     .effect = "the rate/delta interval of groups without their own"},
    {.id = Setting::PureEventCacheSize, .name = "CDP_PURE_EVENT_CACHE_SIZE", .kind = K::Number,
     .section = kGroups, .defaultValue = 100,
     .effect = "the pure-event cache size of groups without their own",
     .traces = {{Set, false,
                 "Setting the pure event cache size for attribute group %s to global value %d",
                 "gv"}}},

    // --- Commands and scripts ---
    {.id = Setting::CommandRetryDelay, .name = "CDP_DP_COMMAND_RETRY_DELAY", .kind = K::Number,
     .section = kCommands, .defaultValue = 1000, .unit = "ms",
     .effect = "the pause before the one retry of a command that failed to start",
     .traces = {{Always, false, "Command Retry Delay set to %d milliseconds", "v"}}},
    {.id = Setting::ScriptMaxOutputMb, .name = "CDP_DP_SCRIPT_MAX_OUTPUT_MB", .kind = K::Number,
     .section = kCommands, .defaultValue = 64, .wide = true, .scale = kMegabyte, .unit = "MB",
     .min = 1, .outOfRange = R::Replace, .replacement = 64,
     .effect = "the output a command may write to each of its streams",
     .traces = {{Always, false,
                 "Commands may write up to %lld bytes to each of their output streams", "v"}}},
    {.id = Setting::TruncateStderrData, .name = "CDP_DP_TRUNCATE_STDERR_DATA",
     .kind = K::Number, .section = kCommands, .defaultValue = -1, .defaultText = "no limit",
     .unit = "bytes", .min = 1, .outOfRange = R::Replace, .replacement = -1,
     .effect = "captured standard error is cut to this many bytes",
     .traces = {{On, false,
                 "CDP_DP_TRUNCATE_STDERR_DATA set, agent will truncate stdErr data  for shell "
                 "commands to %d bytes.",
                 "v"},
                {Off, false, "CDP_DP_TRUNCATE_STDERR_DATA not set, agent will return full stdErr",
                 ""}}},
    {.id = Setting::ScriptTimeout, .name = "CDP_DP_SCRIPT_TIMEOUT", .kind = K::Number,
     .section = kCommands, .defaultValue = 30, .unit = "s", .min = 11,
     .outOfRange = R::Replace, .replacement = 10,
     .effect = "how long a script may run before it is stopped",
     .traces = {{Unset, false, "script timeout not set, setting to default %d\n", "v"},
                {Replaced, false, "script timeout set to minimum %d\n", "v"},
                {Set, false, "script timeout for actions set to %d\n", "v"}}},
    {.id = Setting::GroupKillOrphanScripts, .name = "_KILL_ORPHAN_SCRIPTS", .scope = S::Group,
     .kind = K::Flag, .section = kCommands, .emptyIsUnset = true, .flag = F::Yes,
     .fallback = Setting::KillOrphanScripts,
     .effect = "kill the processes a timed-out script of the group leaves behind",
     .traces = {{Set, false, "Attribute group %s: kill orphan script processes set to %s, killing %s",
                 "gto"}}},
    {.id = Setting::KillOrphanScripts, .name = "CDP_DP_KILL_ORPHAN_SCRIPTS", .kind = K::Flag,
     .section = kCommands, .flag = F::Yes,
     .effect = "the same for groups without their own",
     .traces = {{On, false,
                 "CDP_DP_KILL_ORPHAN_SCRIPTS set, agent will attempt to kill timed out script "
                 "processes for command %s.",
                 "x"},
                {Off, false,
                 "CDP_DP_KILL_ORPHAN_SCRIPTS not set, agent will not attempt to kill timed out "
                 "script processes for command %s.",
                 "x"}}},
    {.id = Setting::ScriptAllowBlankValues, .name = "CDP_DP_SCRIPT_ALLOW_BLANK_VALUES",
     .kind = K::Flag, .section = kCommands, .flag = F::Present,
     .effect = "script output may leave values out",
     .traces = {{On, false,
                 "Running script data collection in test mode which allows omitted elements.\n",
                 ""}}},
    {.id = Setting::ScriptCreateEmptyRow,
     .name = "CDP_DP_SCRIPT_CREATE_EMPTY_ROW_WHEN_NO_STDOUT_DATA_RETURNED", .kind = K::Flag,
     .section = kCommands, .flag = F::Present,
     .effect = "a script without output yields one row of empty values",
     .traces = {{On, false,
                 "Running script data collection and allowing no output. A fake row with \"\" "
                 "or 0 values will be created.\n",
                 ""}}},

    // --- Scripts over SSH (a [subnode TYPE KEY] section may set them for its host) ---
    {.id = Setting::SshKnownHosts, .name = "CDP_SSH_KNOWN_HOSTS", .section = kSsh,
     .emptyIsUnset = true, .defaultText = "XRV_STATE_DIR/ssh_known_hosts",
     .effect = "the known hosts file that remote hosts' keys are checked against "
               "(docs/ssh.md)"},
    {.id = Setting::SshTempDirectory, .name = "CDP_SSH_TEMP_DIRECTORY", .section = kSsh,
     .emptyIsUnset = true, .defaultText = ".xrvagent",
     .effect = "the remote directory command files are uploaded to (relative: to the remote "
               "user's home); commands see it as $CDP_SSH_TEMP_DIRECTORY"},
    {.id = Setting::SshDelCommand, .name = "CDP_SSH_DEL_COMMAND", .section = kSsh,
     .emptyIsUnset = true, .defaultText = "rm -f",
     .effect = "the remote command, followed by the files, that removes uploaded command files "
               "when SSH_DELETE_FILE is on"},
    {.id = Setting::SshReconnectMaxDelay, .name = "CDP_SSH_RECONNECT_MAX_DELAY",
     .kind = K::Number, .section = kSsh, .emptyIsUnset = true, .defaultValue = 60, .unit = "s",
     .min = 1, .outOfRange = R::Replace, .replacement = 1,
     .effect = "the longest wait before a host that could not be reached is tried again (the "
               "wait starts at 1 s and doubles)"},

    // --- Log monitor ---
    {.id = Setting::AgentLibDir, .name = "AGENT_LIB_DIR", .section = kLogMonitor,
     .emptyIsUnset = true, .defaultText = "unset",
     .effect = "the directory searched first for the log engine library, "
               "lib + the application's first three letters in lower case + udp.so "
               "(docs/log-monitor.md)"},
    {.id = Setting::ApplicationSendPqlEvents, .name = "_SEND_PQL_EVENTS",
     .scope = S::Application, .kind = K::Flag, .section = kLogMonitor, .flag = F::NotNo,
     .defaultValue = 1,
     .effect = "off: the records matched for the application's pure-event log monitor groups "
               "are dropped instead of sent as event rows"},
    {.id = Setting::LeavePureCacheOnReset, .name = "CDP_DP_LEAVE_PURE_CACHE_ON_RESET",
     .kind = K::Flag, .section = kLogMonitor, .flag = F::Yes,
     .effect = "a log monitor group keeps the events of its pure-event cache across a reset"},
    {.id = Setting::LognameIsBasename, .name = "CDP_LOGNAME_IS_BASENAME", .kind = K::Flag,
     .section = kLogMonitor, .flag = F::Yes,
     .effect = "the source attribute of log monitor rows holds the file's base name instead of "
               "its path",
     .traces = {{On, false, "Setting logNameIsBasename to true based on ENV setting", ""}}},
    {.id = Setting::LogPositionsDir, .name = "XRV_LOG_POSITIONS_DIR", .section = kLogMonitor,
     .emptyIsUnset = true, .defaultText = "unset",
     .effect = "the directory, made when missing, where the log engine keeps its read positions, "
               "so that TAIL sources go on after a restart where they stopped; an XRVLOG_STATE_DIR "
               "of the agent's environment wins (docs/log-engine.md)"},

    // --- Log monitor, format-file mode (docs/format-files.md) ---
    {.id = Setting::ApplicationConfFile, .name = "_CONF_FILE", .scope = S::Application,
     .section = kLogMonitor, .emptyIsUnset = true, .defaultText = "unset",
     .effect = "the conf file of the application's format-file log monitor group; a subnode's "
               "copy reads it from its subnode's section, and one that finds the top level's "
               "file there is disabled with DUPLICATE_CONF_FILE (docs/log-monitor.md)"},
    {.id = Setting::ApplicationFormatFile, .name = "_FORMAT_FILE", .scope = S::Application,
     .section = kLogMonitor, .emptyIsUnset = true,
     .defaultText = "the conf file's path with .fmt for .conf",
     .effect = "the format file of the application's format-file log monitor group; read like "
               "<APPLICATION>_CONF_FILE"},
    {.id = Setting::ApplicationSendObvEvents, .name = "_SEND_OBV_EVENTS",
     .scope = S::Application, .kind = K::Flag, .section = kLogMonitor, .flag = F::Yes,
     .effect = "the event text of every record a format-file group of the application matches "
               "is also forwarded to the event server its conf file names "
               "(docs/event-forwarding.md)"},
    {.id = Setting::ApplicationProcessPriorityClass, .name = "_PROCESS_PRIORITY_CLASS",
     .scope = S::Application, .section = kLogMonitor, .emptyIsUnset = true,
     .defaultText = "USE_CONF_FILE_VALUE",
     .effect = "A to F: the nice value of the whole agent (A 20, B 10, C 0, D -5, E -10, F -20), "
               "set when a top-level format-file group starts or resets; USE_CONF_FILE_VALUE "
               "(or unset): the conf key ProcessPriorityClass decides"},
    {.id = Setting::ApplicationAutoInitSyslog, .name = "_AUTO_INIT_SYSLOG",
     .scope = S::Application, .section = kLogMonitor, .emptyIsUnset = true,
     .defaultText = "USE_CONF_FILE_VALUE",
     .effect = "Y...: format-file groups of the application feed the syslog daemon's messages "
               "to the log engine through a pipe, adding it to the daemon's configuration; "
               "N...: they do not; USE_CONF_FILE_VALUE (or unset): the conf key AutoInitSyslog "
               "decides"},
    {.id = Setting::ProcessMaxCpuPct, .name = "PROCESS_MAX_CPU_PCT", .kind = K::Number,
     .section = kLogMonitor, .emptyIsUnset = true, .defaultText = "unset",
     .effect = "percent of one CPU the log engine may spend on a format-file group's files; "
               "wins over the conf key ProcessMaxCpuPct. 0: no limit, 1 to 4 become 5, above "
               "100 becomes 100"},
    {.id = Setting::IpAddr, .name = "CDP_IP_ADDR", .section = kLogMonitor, .emptyIsUnset = true,
     .defaultText = "the host name's address",
     .effect = "the value of a format's DEFAULT slot origin"},
    {.id = Setting::SshPort, .name = "SSH_PORT", .section = kLogMonitor, .emptyIsUnset = true,
     .defaultText = "unset",
     .effect = "the SSH port of a format-file group's remote hosts; wins over the conf key SshPort"},
    {.id = Setting::SshUserid, .name = "SSH_USERID", .section = kLogMonitor, .emptyIsUnset = true,
     .defaultText = "unset",
     .effect = "the SSH account of a format-file group's remote hosts; wins over the conf key "
               "SshUserid"},
    {.id = Setting::SshPassword, .name = "SSH_PASSWORD", .section = kLogMonitor,
     .emptyIsUnset = true, .defaultText = "unset",
     .effect = "the password of that account; wins over the conf key SshPassword"},
    {.id = Setting::SshAuthType, .name = "SSH_AUTH_TYPE", .section = kLogMonitor,
     .emptyIsUnset = true, .defaultText = "unset",
     .effect = "how to log in to the remote hosts; wins over the conf key SshAuthType"},
    {.id = Setting::SshPubKeyfile, .name = "SSH_PUB_KEYFILE", .section = kLogMonitor,
     .emptyIsUnset = true, .defaultText = "unset",
     .effect = "the public key file for the remote hosts; wins over the conf key SshPubKeyfile"},
    {.id = Setting::SshPrivKeyfile, .name = "SSH_PRIV_KEYFILE", .section = kLogMonitor,
     .emptyIsUnset = true, .defaultText = "unset",
     .effect = "the private key file for the remote hosts; wins over the conf key SshPrivKeyfile"},

    // --- Subnodes ---
    {.id = Setting::InitialConfigDiscoveryNodeState,
     .name = "CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE", .kind = K::Choice,
     .section = kSubnodes, .emptyIsUnset = true, .choices = "UP|DOWN",
     .effect = "UP: new subnodes are registered at once; DOWN: once data was collected",
     .traces = {{Invalid, true,
                 "CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE - invalid value %s, new nodes will "
                 "be registered",
                 "t"},
                {On, false,
                 "CDP_DP_INITIAL_CONFIG_DISCOVERY_NODE_STATE set to DOWN, new nodes will be not "
                 "be registered until data is collected",
                 ""}}},
    {.id = Setting::UseHostnameInSubnodeMsn, .name = "CDP_DP_USE_HOSTNAME_IN_SUBNODE_MSN",
     .kind = K::Flag, .section = kSubnodes, .flag = F::Yes,
     .effect = "subnode names start with CTAFW_HOSTNAME and \"_\""},
    {.id = Setting::ExcludeSubnodeTypeFromMsn, .name = "CDP_DP_EXCLUDE_SUBNODE_TYPE_FROM_MSN",
     .section = kSubnodes, .defaultText = "unset",
     .effect = "a subnode type left out of its subnodes' names (their keys may be longer)"},
    {.id = Setting::GarbageCollectionInterval, .name = "CDP_DP_GARBAGE_COLLECTION_INTERVAL",
     .kind = K::Number, .section = kSubnodes, .emptyIsUnset = true, .defaultValue = 600,
     .unit = "s", .min = 1, .outOfRange = R::Ignore,
     .effect = "seconds between passes that delete the providers of vanished subnodes",
     .traces = {{Invalid, true,
                 "CDP_DP_GARBAGE_COLLECTION_INTERVAL - invalid value %s, using %d seconds",
                 "tv"}}},

    // --- HTTP API ---
    {.id = Setting::HttpListen, .name = "XRV_HTTP_LISTEN", .section = kHttp,
     .emptyIsUnset = true, .defaultText = "127.0.0.1:9310",
     .effect = "where the HTTP API listens: HOST:PORT or [IPv6]:PORT; port 0 takes any free "
               "port (the agent prints which). Only the loopback address unless you say "
               "otherwise"},
    {.id = Setting::HttpThreads, .name = "XRV_HTTP_THREADS", .kind = K::Number,
     .section = kHttp, .emptyIsUnset = true, .defaultValue = 8, .min = 1, .max = 64,
     .outOfRange = R::Reject,
     .effect = "threads doing the work of requests that may wait; connections are held by "
               "event loops (one per processor, at most 4)"},
    {.id = Setting::HttpMaxConnections, .name = "XRV_HTTP_MAX_CONNECTIONS", .kind = K::Number,
     .section = kHttp, .emptyIsUnset = true, .defaultValue = 4096, .min = 16, .max = 1000000,
     .outOfRange = R::Reject,
     .effect = "connections held at once (fewer when the process may open fewer "
               "descriptors: 256 stay for the rest of the agent)"},
    {.id = Setting::HttpMaxConnectionsPerAddress, .name = "XRV_HTTP_MAX_CONNECTIONS_PER_ADDRESS",
     .kind = K::Number, .section = kHttp, .emptyIsUnset = true, .defaultValue = 256, .min = 0,
     .max = 1000000, .outOfRange = R::Reject,
     .effect = "connections from one client address; 0: no limit"},
    {.id = Setting::HttpHeadTimeout, .name = "XRV_HTTP_HEAD_TIMEOUT", .kind = K::Number,
     .section = kHttp, .emptyIsUnset = true, .defaultValue = 10, .unit = "s", .min = 1,
     .max = 3600, .outOfRange = R::Reject,
     .effect = "time for a request head to arrive whole, from the connection's start or the "
               "previous answer"},
    {.id = Setting::HttpIdleTimeout, .name = "XRV_HTTP_IDLE_TIMEOUT", .kind = K::Number,
     .section = kHttp, .emptyIsUnset = true, .defaultValue = 30, .unit = "s", .min = 1,
     .max = 86400, .outOfRange = R::Reject,
     .effect = "time without any traffic after which a connection is closed"},
    {.id = Setting::HttpMaxHeaders, .name = "XRV_HTTP_MAX_HEADERS", .kind = K::Number,
     .section = kHttp, .emptyIsUnset = true, .defaultValue = 100, .min = 1, .max = 10000,
     .outOfRange = R::Reject,
     .effect = "header fields per request (431 beyond); the whole head may hold 16 KB"},
    {.id = Setting::HttpMaxEventStreams, .name = "XRV_HTTP_MAX_EVENT_STREAMS", .kind = K::Number,
     .section = kHttp, .emptyIsUnset = true, .defaultValue = 64, .min = 1, .max = 100000,
     .outOfRange = R::Reject,
     .effect = "clients following GET /api/v1/events/stream at once (503 beyond); a stream "
               "client that takes nothing for XRV_HTTP_IDLE_TIMEOUT is dropped"},
    {.id = Setting::HttpTlsCert, .name = "XRV_HTTP_TLS_CERT", .section = kHttp,
     .defaultText = "unset",
     .effect = "PEM file of the certificate; with XRV_HTTP_TLS_KEY the API speaks HTTPS only"},
    {.id = Setting::HttpTlsKey, .name = "XRV_HTTP_TLS_KEY", .section = kHttp,
     .defaultText = "unset", .effect = "PEM file of the certificate's key"},
    {.id = Setting::HttpUsersFile, .name = "XRV_HTTP_USERS_FILE", .section = kHttp,
     .defaultText = "unset",
     .effect = "a file of `name: bcrypt-hash` lines (`htpasswd -nbB name password`); every "
               "endpoint but the shutdown then needs basic authentication of one of these "
               "users"},
    {.id = Setting::EventBuffer, .name = "XRV_EVENT_BUFFER", .kind = K::Number,
     .section = kHttp, .emptyIsUnset = true, .defaultValue = 10000, .min = 1, .max = 10000000,
     .outOfRange = R::Reject, .effect = "event rows kept for GET /api/v1/events"},
    {.id = Setting::AdminToken, .name = "XRV_ADMIN_TOKEN", .section = kHttp,
     .defaultText = "unset",
     .effect = "the token POST /api/v1/shutdown (and xrvctl stop) must present; unset, "
               "shutdown through HTTP is refused"},
};
// clang-format on

// --- Checks of the table, at compile time ---

constexpr bool idsInOrder() {
  for (size_t i = 0; i < std::size(kSettings); ++i) {
    if (static_cast<size_t>(kSettings[i].id) != i) {
      return false;
    }
  }
  return std::size(kSettings) == static_cast<size_t>(Setting::None);
}
static_assert(idsInOrder(), "kSettings must list every Setting once, in enumeration order");

constexpr bool isNumberLetter(char c) { return c == 'v'; }
constexpr bool isTextLetter(char c) {
  return c == 'g' || c == 'n' || c == 't' || c == 'o' || c == 'x';
}

// Every conversion of a text has an argument letter of its kind, and no letter is left.
constexpr bool formatMatchesArgs(const char* format, const char* args) {
  const char* arg = args;
  for (const char* p = format; *p != '\0'; ++p) {
    if (*p != '%') {
      continue;
    }
    ++p;
    if (*p == '%') {
      continue;
    }
    if (*arg == '\0') {
      return false;
    }
    if (*p == 's') {
      if (!isTextLetter(*arg)) {
        return false;
      }
    } else if (*p == 'd' || (p[0] == 'l' && p[1] == 'l' && p[2] == 'd')) {
      if (!isNumberLetter(*arg)) {
        return false;
      }
      p += *p == 'l' ? 2 : 0;
    } else {
      return false;
    }
    ++arg;
  }
  return *arg == '\0';
}

constexpr bool tracesWellFormed() {
  for (const SettingSpec& entry : kSettings) {
    for (const SettingTrace& trace : entry.traces) {
      if (trace.format != nullptr && !formatMatchesArgs(trace.format, trace.args)) {
        return false;
      }
    }
    const bool group = entry.scope == SettingScope::Group;
    const bool suffixed = group || entry.scope == SettingScope::Application;
    if (suffixed != (entry.name[0] == '_')) {
      return false;  // group and application settings are named by their suffix, only they
    }
    if (entry.fallback != Setting::None &&
        (!group || kSettings[static_cast<size_t>(entry.fallback)].scope != SettingScope::Agent)) {
      return false;
    }
  }
  return true;
}
static_assert(tracesWellFormed(),
              "a trace text's conversions must match its argument letters; group settings "
              "are named by suffix and fall back to agent-wide ones");

}  // namespace

std::span<const SettingSpec> allSettings() { return kSettings; }

}  // namespace XRV
