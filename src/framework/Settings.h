#pragma once

// The settings the agent reads, declared once in one table (Settings.cpp) and read
// through readSetting. docs/settings.md is printed from the same table
// (tools/settings-doc); a test fails when the committed file differs.
//
// An entry says where a setting is looked up, its default, how a value is taken
// (numbers as atoi takes them, flags by their first character), what happens to a
// value outside its limits, and the trace lines the agent writes about it. Reading:
//
//   XRV_TRACE_FN();
//   const int ttl = settingNumber(Setting::GroupCacheTtl, XRV_SETTING_HERE().forGroup(group));
//
// traces the entry's texts through the caller's trace site, so that the lines carry
// the caller's function and follow its trace rules. A read without a context traces
// nothing; traceSetting writes the texts of such a read later, where the caller's
// order of events wants them.
//
// Thread-safe: the table is constant, lookups go through fwGetEnv (or getenv for
// environment-only settings, which tracing itself reads: those reads never trace).

#include <climits>
#include <cstdint>
#include <span>
#include <string>

#include "framework/Trace.h"

namespace XRV {

enum class Setting : uint8_t {
  // Start-up
  AgentRefFile,
  InstanceName,
  InstanceHostName,
  BinPath,
  RegisterActionCallback,
  ConfiguredHostName,
  ConfigFile,
  MaxFileMb,
  Trace,
  TraceFile,
  StateDir,
  // Collection
  ThreadPoolSize,
  RefreshInterval,
  InitialCollectionDelay,
  ImpatientCollectorTimeout,
  // Attribute groups (the order is the order ResultsManager announces them in)
  GroupRefreshInterval,
  GroupCacheTtl,
  GroupRateDeltaTimeVariation,
  GroupRateDeltaInterval,
  GroupPureEventCacheSize,
  GroupAggregateResults,
  GroupReplaceRowsByKey,
  GroupPurgeInterval,
  GroupDisableCollection,
  GroupOnlyForcedCollection,
  GroupReplaceWithLatest,
  GroupTruncateTimestamp,
  CacheTtl,
  RateDeltaTimeVariation,
  RateDeltaInterval,
  PureEventCacheSize,
  // Commands and scripts
  CommandRetryDelay,
  ScriptMaxOutputMb,
  TruncateStderrData,
  ScriptTimeout,
  GroupKillOrphanScripts,
  KillOrphanScripts,
  ScriptAllowBlankValues,
  ScriptCreateEmptyRow,
  // Scripts over SSH
  SshKnownHosts,
  SshTempDirectory,
  SshDelCommand,
  SshReconnectMaxDelay,
  // Log monitor
  AgentLibDir,
  ApplicationSendPqlEvents,
  LeavePureCacheOnReset,
  LognameIsBasename,
  LogPositionsDir,
  // Log monitor, format-file mode
  ApplicationConfFile,
  ApplicationFormatFile,
  ApplicationSendObvEvents,
  ApplicationProcessPriorityClass,
  ApplicationAutoInitSyslog,
  ProcessMaxCpuPct,
  IpAddr,
  SshPort,
  SshUserid,
  SshPassword,
  SshAuthType,
  SshPubKeyfile,
  SshPrivKeyfile,
  // Subnodes
  InitialConfigDiscoveryNodeState,
  UseHostnameInSubnodeMsn,
  ExcludeSubnodeTypeFromMsn,
  GarbageCollectionInterval,
  // HTTP API
  HttpListen,
  HttpThreads,
  HttpMaxConnections,
  HttpMaxConnectionsPerAddress,
  HttpHeadTimeout,
  HttpIdleTimeout,
  HttpMaxHeaders,
  HttpMaxEventStreams,
  HttpTlsCert,
  HttpTlsKey,
  HttpUsersFile,
  EventBuffer,
  AdminToken,
  None  // no setting; also the number of settings
};

enum class SettingScope : uint8_t {
  Agent,        // configuration lookup: run-time values, environment, [agent] section
  Group,        // the same lookup of "CDP_" + upper-cased group name + the entry's suffix
  Environment,  // the process environment only (read before the configuration file)
  Application,  // the Agent lookup of the application's name (as written) + the suffix
};

enum class SettingKind : uint8_t { Text, Number, Flag, Choice };

// How a flag's value turns it on.
enum class FlagRule : uint8_t {
  None,
  Yes,      // on when the value starts with Y or y
  NotNo,    // on unless the value starts with N or n
  Present,  // on when set at all, whatever the value
};

// What becomes of a number below `min` or above `max`.
enum class OutOfRange : uint8_t {
  Accept,   // taken as it is (no limits)
  Replace,  // becomes `replacement`
  Ignore,   // counts as not set; the Invalid texts are traced
  Reject,   // only whole numbers within the limits count; anything else is reported
            // in the context's warning and the setting counts as not set
};

// When a trace text is written: the bits of one group that a text names must hold one
// of the read's; a text without bits of a group does not care about that group.
namespace when {
inline constexpr uint8_t Set = 1;       // the value was taken as given
inline constexpr uint8_t Unset = 2;     // not set (or ignored): the default is in force
inline constexpr uint8_t Replaced = 4;  // set, and replaced for being out of its limits
inline constexpr uint8_t On = 8;        // a flag on, a number above 0, a choice other
inline constexpr uint8_t Off = 16;      // than the default; Off: the opposite
inline constexpr uint8_t Invalid = 32;  // set to a value that was ignored
inline constexpr uint8_t Always = 0;
}  // namespace when

struct SettingTrace {
  uint8_t when = when::Always;
  bool error = false;            // an error line; else a detail line
  const char* format = nullptr;  // the exact text; %s, %d and %lld take the arguments
  // One letter per argument, in order: g the group, n the setting's name (the group's
  // for a group setting), t the value as given ("(null)" when unset), v the number in
  // force, o "on" or "off", x the caller's extra text.
  const char* args = "";
};

inline constexpr int kMaxSettingTraces = 4;

// The section of the settings every attribute group has (the table's own text, so that
// comparing pointers is enough).
inline constexpr const char kGroupSettingsSection[] = "Attribute groups";

struct SettingSpec {
  Setting id = Setting::None;
  // The whole name; for a group or application setting the suffix ("_CACHE_TTL").
  const char* name = "";
  SettingScope scope = SettingScope::Agent;
  SettingKind kind = SettingKind::Text;
  const char* section = "";
  bool emptyIsUnset = false;  // an empty value counts as not set
  FlagRule flag = FlagRule::None;
  const char* choices = "";      // Choice: "A|B|..." (any case); the default is an index
  long long defaultValue = 0;    // numbers, flags (0/1), choices
  const char* defaultText = "";  // texts; for the others how the documentation says it
  bool wide = false;             // a 64-bit number (atoll); else as atoi takes it
  long long scale = 1;           // the number in force is the value times this
  const char* unit = "";
  long long min = LLONG_MIN;
  long long max = LLONG_MAX;
  OutOfRange outOfRange = OutOfRange::Accept;
  long long replacement = 0;
  Setting fallback = Setting::None;  // the agent-wide setting used when a group's is unset
  const char* effect = "";
  SettingTrace traces[kMaxSettingTraces] = {};
};

// Every setting, in the order of the enumeration.
std::span<const SettingSpec> allSettings();
const SettingSpec& settingSpec(Setting id);
// The name looked up: for a group setting "CDP_" + `owner` (the group) upper-cased
// (ASCII) + suffix; for an application setting `owner` (the application) + suffix.
std::string settingName(Setting id, const char* owner = nullptr);

// Where a read traces to, and what its texts may need.
struct SettingContext {
  trace::Site* site = nullptr;  // null: trace nothing
  int line = 0;
  const char* group = nullptr;     // the attribute group of a group setting
  const char* application = nullptr;  // the application of an application setting
  const char* extra = nullptr;     // the x argument of the texts
  std::string* warning = nullptr;  // Reject: where complaints are appended ("; " between)
  // A default that depends on the agent's state, for the setting `defaultFor`.
  bool hasDefault = false;
  Setting defaultFor = Setting::None;
  long long defaultValue = 0;

  SettingContext forGroup(const char* g) const {
    SettingContext c = *this;
    c.group = g;
    return c;
  }
  SettingContext forApplication(const char* a) const {
    SettingContext c = *this;
    c.application = a;
    return c;
  }
  SettingContext withExtra(const char* x) const {
    SettingContext c = *this;
    c.extra = x;
    return c;
  }
  SettingContext withDefault(Setting id, long long value) const {
    SettingContext c = *this;
    c.hasDefault = true;
    c.defaultFor = id;
    c.defaultValue = value;
    return c;
  }
  SettingContext warningsTo(std::string* w) const {
    SettingContext c = *this;
    c.warning = w;
    return c;
  }
};

// The context of the enclosing function (which starts with XRV_TRACE_FN()).
#define XRV_SETTING_HERE() (::XRV::SettingContext{&xrvTraceSite_, __LINE__})

struct SettingRead {
  Setting traced = Setting::None;  // the entry whose texts describe this read
  std::string name;                // the name looked up first
  bool set = false;                // a value is in force (not the default)
  bool given = false;              // some value was found, even one that was ignored
  std::string text;                // the value as given (a Text setting's value); else ""
  long long number = 0;            // Number, Flag (0/1), Choice (index): in force
  uint8_t outcome = 0;             // when:: bits
  bool on() const { return number != 0; }
};

// Reads a setting; traces its texts when the context has a site.
SettingRead readSetting(Setting id, const SettingContext& context = {});
// Writes the texts of an earlier read (made without a site) for `context`'s site.
void traceSetting(const SettingRead& read, const SettingContext& context);
// Writes the texts of `id` that depend only on the value in force, for a value the
// caller keeps (`number`, as readSetting gives it): those of every outcome, and those
// of On (above 0) or Off.
void traceSettingValue(Setting id, long long number, const SettingContext& context);

inline long long settingNumber(Setting id, const SettingContext& context = {}) {
  return readSetting(id, context).number;
}
inline bool settingFlag(Setting id, const SettingContext& context = {}) {
  return readSetting(id, context).on();
}
inline std::string settingText(Setting id, const SettingContext& context = {}) {
  return readSetting(id, context).text;
}

// `format` with its %s, %d and %lld conversions filled from `args` as SettingTrace
// describes; the letters a read supplies. Exposed for the tests.
std::string renderSettingText(const SettingTrace& trace, const SettingRead& read,
                              const SettingContext& context);

}  // namespace XRV
