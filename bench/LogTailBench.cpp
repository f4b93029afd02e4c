// Tailing a log that a writer appends to at full speed: the log engine alone, the agent
// with a log monitor group on it, and another tailer, on the same generated access log.
//
//   logtail_bench engine FILE [LINES]
//   logtail_bench agent FILE LINES -- XRV_AGENT [ARGS...]
//   logtail_bench collectd FILE LINES -- PROGRAM [ARGS...]
//
// All create FILE empty and fork a writer that generates LINES access-log lines
// (default 1,000,000, about 114 MB) in memory. Then they start the tailer on the file,
// wait until it follows it, and let the writer append the lines in blocks of just
// under 1 MB as fast as it can, while they wait for the tailer to have seen the last
// line. They print one line of key=value pairs:
//   seen      lines the tailer reported (records, events, or its match counter)
//   wall      seconds from the first write to the last line seen
//   cpu       the tailer's process CPU seconds (user + system) over the same span
//   rss_kb    the tailer's peak resident memory (VmHWM) at the end
//   writer    seconds the writer took for all its writes
// and exit with 2 when the tailer did not see every line.
//
// engine: the log engine in this process, through its C interface, with an event table
// whose one attribute carries the three filters of AccessLog.h (access first, each
// with a REPLACEFIRST template that uses every group); the data callback counts the
// records. Also prints `base_kb`, the process's peak resident memory before the engine
// started, and `read`, the lines the engine read from the file.
//
// agent: writes, beside FILE, a definition (agent.xml) with one pure-event log monitor
// group that runs the engine's text above under its own table name, and no flood
// control, and a configuration (agent.ini; the HTTP API on a free loopback port), and
// starts XRV_AGENT on them. Once Performance_Object_Status shows the group active it
// notes the sequence number the event ring gives its next event, starts the writer,
// and asks GET /api/v1/events every 10 ms for the newest number: the difference is the
// events added, even those the ring no longer holds. `wall` ends at the time the last
// line's event went into the ring (its `time`, in milliseconds); `polled` is when the
// poll saw it, and `last_row_ok` that this event is the last line's. CPU time and
// memory as for collectd; the agent is sent SIGTERM afterwards.
//
// collectd: PROGRAM (collectd in the foreground, its csv plugin writing to standard
// output, line-buffered) runs with its standard output on a pipe and must print lines
// ending in ":COUNT" (PUTVAL host/tail-x/counter-y interval=0.100 TIME:COUNT). Its first
// such line says it follows the file; COUNT reaching LINES says it has seen every line.
// Its CPU time comes from /proc/PID/stat; it is sent SIGTERM afterwards.
#include "AccessLog.h"
#include "engine/xpwp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// A tailer that makes no progress for this long has given up on some lines.
constexpr auto kStall = std::chrono::seconds(10);

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "logtail_bench: %s\n", what.c_str());
  std::exit(1);
}

double seconds(Clock::duration span) { return std::chrono::duration<double>(span).count(); }

// The writer: a child process that holds the generated lines in memory, so that what it
// costs to make them is paid before the clock starts.
class Writer {
 public:
  Writer(const std::string& path, long lines) {
    int ready[2];
    int go[2];
    int done[2];
    if (pipe(ready) != 0 || pipe(go) != 0 || pipe(done) != 0) fail("pipe failed");
    pid_ = fork();
    if (pid_ < 0) fail("fork failed");
    if (pid_ == 0) {
      close(ready[0]);
      close(go[1]);
      close(done[0]);
      run(path, lines, ready[1], go[0], done[1]);
    }
    close(ready[1]);
    close(go[0]);
    close(done[1]);
    go_ = go[1];
    done_ = done[0];
    char byte = 0;
    if (read(ready[0], &byte, 1) != 1) fail("the writer did not get ready");
    close(ready[0]);
  }

  void start() {
    if (write(go_, "g", 1) != 1) fail("cannot start the writer");
    close(go_);
  }

  bool finished() {
    pollfd wait{done_, POLLIN, 0};
    return poll(&wait, 1, 0) == 1;
  }

  // Waits for the writer; returns the seconds its writes took.
  double join() {
    double spent = -1;
    if (read(done_, &spent, sizeof spent) != sizeof spent) fail("the writer failed");
    close(done_);
    int status = 0;
    waitpid(pid_, &status, 0);
    return spent;
  }

 private:
  [[noreturn]] static void run(const std::string& path, long lines, int ready, int go, int done) {
    std::vector<std::string> blocks;
    xrvlog::bench::generateAccessLog(lines,
                                     [&](std::string_view block) { blocks.emplace_back(block); });
    char byte = 'r';
    if (write(ready, &byte, 1) != 1 || read(go, &byte, 1) != 1) _exit(1);
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) _exit(1);
    const auto start = Clock::now();
    for (const std::string& block : blocks) {
      if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) _exit(1);
    }
    const double spent = seconds(Clock::now() - start);
    close(fd);
    if (write(done, &spent, sizeof spent) != sizeof spent) _exit(1);
    _exit(0);
  }

  pid_t pid_ = -1;
  int go_ = -1;
  int done_ = -1;
};

struct Result {
  long seen = 0;
  double wall = 0;
  double cpu = 0;
  long rss_kb = 0;
  double writer = 0;
};

void print(const char* side, long lines, const Result& result, const std::string& extra) {
  std::printf("%s lines=%ld seen=%ld wall=%.3f cpu=%.3f rss_kb=%ld writer=%.3f%s\n", side, lines,
              result.seen, result.wall, result.cpu, result.rss_kb, result.writer, extra.c_str());
}

long peak_rss_kb(const std::string& status_path) {
  std::ifstream status(status_path);
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

void create_empty(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) fail("cannot create " + path);
  close(fd);
}

// ---- the log engine ----

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    out += c;
    if (c == '\'') out += '\'';
  }
  return out + "'";
}

// The engine's text for `path`: an event table whose one attribute keeps every line that
// one of the three filters matches. The agent's group runs the same text under its
// own application and table name.
std::string engine_mdl(const std::string& path, const std::string& application = "logtail_bench",
                       const std::string& table = "LOGTAIL_BENCH") {
  using namespace xrvlog::bench;
  return "//APPL " + application + "\n//NAME " + table + " E\n" + "//SOURCE FILE " + quoted(path) +
         " TAIL\n//ATTRIBUTES NEWLINE\n" + "Access Z 2048 +FILTER={ScanRegEx(0," + kAccessPattern +
         ",REPLACEFIRST(host=$1;time=$2;request=$3;status=$4;size=$5;)) OR ScanRegEx(0," +
         kErrorPattern + ",REPLACEFIRST(time=$1;level=$2;message=$3;)) OR ScanRegEx(0," +
         kSyslogPattern + ",REPLACEFIRST(time=$1;host=$2;program=$3;message=$4;))}\n";
}

struct Counter {
  std::atomic<long> records{0};
  std::atomic<long> unexpected{0};  // records without the access template's value
  long target = 0;
  std::mutex mutex;
  std::condition_variable reached;
  Clock::time_point last{};
};

Counter counter;

void on_record(void*, const char*, const char*, const char*, const XPWP_NameValue* pairs,
               int count) {
  if (count == 0) return;  // the end of a sampled table's pass
  if (count != 1 || std::strncmp(pairs[0].value, "host=", 5) != 0) {
    counter.unexpected.fetch_add(1, std::memory_order_relaxed);
  }
  if (counter.records.fetch_add(1, std::memory_order_relaxed) + 1 == counter.target) {
    std::lock_guard lock(counter.mutex);
    counter.last = Clock::now();
    counter.reached.notify_all();
  }
}

double process_cpu_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

void check(int result, const char* call) {
  if (result != CDP_Success) fail(std::string(call) + " returned " + std::to_string(result));
}

int run_engine(const std::string& path, long lines) {
  create_empty(path);
  Writer writer(path, lines);
  counter.target = lines;
  const long base_kb = peak_rss_kb("/proc/self/status");

  XPWP_Handle engine = nullptr;
  check(XPWP_StartCommonProvider(&engine, XPWP_START_THREADED), "XPWP_StartCommonProvider");
  check(XPWP_RegisterDataCallback(engine, on_record), "XPWP_RegisterDataCallback");
  const std::string mdl = engine_mdl(path);
  check(XPWP_LoadMetafile(engine, mdl.c_str(), mdl.size() + 1), "XPWP_LoadMetafile");
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  while (XPWP_AreAllFileThreadsStarted(engine) != CDP_All_File_Threads_Started) {
    if (Clock::now() > deadline) fail("the engine did not start following " + path);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  const double cpu_before = process_cpu_seconds();
  const auto start = Clock::now();
  writer.start();
  Result result;
  {
    std::unique_lock lock(counter.mutex);
    long before = -1;
    auto progress = Clock::now();
    while (counter.last == Clock::time_point{}) {
      counter.reached.wait_for(lock, std::chrono::milliseconds(200));
      const long now = counter.records.load();
      if (now != before) {
        before = now;
        progress = Clock::now();
      } else if (Clock::now() - progress > kStall) {
        counter.last = progress;
        break;
      }
    }
    result.wall = seconds(counter.last - start);
  }
  result.cpu = process_cpu_seconds() - cpu_before;
  result.seen = counter.records.load();
  result.rss_kb = peak_rss_kb("/proc/self/status");
  result.writer = writer.join();

  // The file threads bring the status up to date every 200 ms at most.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  uint64_t read_lines = 0;
  int count = 0;
  XPWP_MonitoredFileInfo_t* info = nullptr;
  if (XPWP_GetMonitoredFileStatus(engine, &count, &info) == CDP_Success) {
    for (int i = 0; i < count; ++i) read_lines += info[i].lines;
    XPWP_FreeMonitoredFileInfo(info, count);
  }
  check(XPWP_FlushCommonProvider(engine), "XPWP_FlushCommonProvider");
  check(XPWP_StopCommonProvider(engine), "XPWP_StopCommonProvider");

  print("engine", lines, result,
        " base_kb=" + std::to_string(base_kb) + " read=" + std::to_string(read_lines) +
            " unexpected=" + std::to_string(counter.unexpected.load()));
  return result.seen == lines && counter.unexpected.load() == 0 ? 0 : 2;
}

// ---- a tailer in another process ----

// utime + stime of a whole process, in seconds.
double other_cpu_seconds(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const std::size_t name_end = text.rfind(')');
  if (name_end == std::string::npos) fail("cannot read /proc/" + std::to_string(pid) + "/stat");
  // After the name: state (field 3), ... utime (14), stime (15).
  std::vector<std::string> fields;
  std::size_t at = name_end + 2;
  while (at < text.size() && fields.size() < 13) {
    const std::size_t space = text.find(' ', at);
    fields.push_back(text.substr(at, space - at));
    if (space == std::string::npos) break;
    at = space + 1;
  }
  if (fields.size() < 13) fail("short /proc/PID/stat");
  const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
  return static_cast<double>(std::atoll(fields[11].c_str()) + std::atoll(fields[12].c_str())) /
         ticks;
}

// Reads the program's standard output a line at a time.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}

  // The next line (without its line feed), or false when none came within `timeout`
  // (or the program closed its output).
  bool next_line(std::chrono::milliseconds timeout, std::string* line) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
      const std::size_t newline = buffer_.find('\n');
      if (newline != std::string::npos) {
        line->assign(buffer_, 0, newline);
        buffer_.erase(0, newline + 1);
        return true;
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) return false;
      pollfd wait{fd_, POLLIN, 0};
      if (poll(&wait, 1, static_cast<int>(left.count())) <= 0) return false;
      char chunk[4096];
      const ssize_t got = read(fd_, chunk, sizeof chunk);
      if (got <= 0) return false;
      buffer_.append(chunk, static_cast<std::size_t>(got));
    }
  }

  // The count at the end of the next line that has one, or -1 when none came within
  // `timeout`.
  long next_count(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::string line;
    for (;;) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0 || !next_line(left, &line)) return -1;
      const std::size_t colon = line.rfind(':');
      if (colon != std::string::npos && colon + 1 < line.size()) {
        return std::atol(line.c_str() + colon + 1);
      }
    }
  }

 private:
  int fd_;
  std::string buffer_;
};

// Starts `command` with its standard output on a pipe; returns its pid and the pipe's
// reading end in `out`.
pid_t spawn(char** command, int* out) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) fail("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 1);
  pid_t pid = 0;
  if (posix_spawnp(&pid, command[0], &actions, nullptr, command, environ) != 0) {
    fail(std::string("cannot start ") + command[0]);
  }
  posix_spawn_file_actions_destroy(&actions);
  close(pipe_fds[1]);
  *out = pipe_fds[0];
  return pid;
}

void stop(pid_t pid, int out) {
  kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
  close(out);
}

int run_collectd(const std::string& path, long lines, char** command) {
  create_empty(path);
  Writer writer(path, lines);

  int out = -1;
  const pid_t pid = spawn(command, &out);
  LineReader reader(out);
  if (reader.next_count(std::chrono::seconds(30)) < 0) {
    kill(pid, SIGTERM);
    fail(std::string(command[0]) + " reported no count: does it follow " + path + "?");
  }

  const double cpu_before = other_cpu_seconds(pid);
  const auto start = Clock::now();
  writer.start();
  Result result;
  auto last = start;
  // Past the end of the writes, a count that stays put for kStall is final.
  while (result.seen < lines) {
    const long count = reader.next_count(std::chrono::milliseconds(500));
    if (count > result.seen) {
      result.seen = count;
      last = Clock::now();
    } else if (writer.finished() && Clock::now() - last > kStall) {
      break;
    }
  }
  result.wall = seconds(last - start);
  result.cpu = other_cpu_seconds(pid) - cpu_before;
  result.rss_kb = peak_rss_kb("/proc/" + std::to_string(pid) + "/status");
  result.writer = writer.join();
  stop(pid, out);

  print("collectd", lines, result, "");
  return result.seen == lines ? 0 : 2;
}

// ---- the agent ----

constexpr const char* kGroup = "Access_Log";

std::string xml_escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '&') {
      out += "&amp;";
    } else if (c == '<') {
      out += "&lt;";
    } else if (c == '>') {
      out += "&gt;";
    } else {
      out += c;
    }
  }
  return out;
}

// A pure-event log monitor group on `path` that runs the engine's text (above) and
// keeps every record it hands over: no flood threshold and no summary interval, so
// every record becomes an event row. Performance_Object_Status tells when the group
// follows the file.
std::string agent_definition(const std::string& path) {
  return std::string(R"(<?xml version="1.0" encoding="UTF-8"?>
<agent>
  <appl name="XRV" nodeType="XR" hostName="" hostType="Linux" affinity="%XRV.XRV" agentVersion="1.0.0" version="01.00.00" service="xrvagent" internalAgentVersion="1"/>
  <metadata>
    <ag name=")") +
         kGroup + R"(" table="XRVACCESS" pure="true">
      <attr name="Access" type="2" size="2048"/>
      <attr name="Log_File" type="2" size="256"/>
    </ag>
    <ag name="Performance_Object_Status" table="XRVPOBJ">
      <attr name="Query_Name" type="2" size="64"/>
      <attr name="Object_Status" type="1" size="24"/>
      <attr name="Error_Code" type="1" size="48"/>
    </ag>
  </metadata>
  <log_monitor app="XRV" ag=")" +
         kGroup + R"(" sourceMapAttr="Log_File">
    <metric name="Access" type="STRING_DATA" visible="true"/>
    <metric name="Log_File" type="STRING_DATA" visible="true"/>
    <mdl_stream>)" +
         xml_escaped(engine_mdl(path, "XRV", "XRVACCESS")) + R"(</mdl_stream>
  </log_monitor>
</agent>
)";
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.flush()) fail("cannot write " + path);
}

// The body of GET `target` from 127.0.0.1:`port` when the answer is 200; else empty.
std::string http_get(int port, const std::string& target) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) fail("socket failed");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    // HTTP/1.0: the answer comes whole, not chunked, and ends with the connection.
    const std::string request = "GET " + target + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
        static_cast<ssize_t>(request.size())) {
      char chunk[16384];
      ssize_t got = 0;
      while ((got = recv(fd, chunk, sizeof chunk, 0)) > 0) {
        answer.append(chunk, static_cast<std::size_t>(got));
      }
    }
  }
  close(fd);
  const std::size_t body = answer.find("\r\n\r\n");
  if (answer.compare(0, 9, "HTTP/1.1 ") != 0 && answer.compare(0, 9, "HTTP/1.0 ") != 0) return "";
  if (answer.compare(9, 3, "200") != 0 || body == std::string::npos) return "";
  return answer.substr(body + 4);
}

// The number after "key": in `json`, or -1.
long json_number(const std::string& json, const std::string& key) {
  const std::size_t at = json.find("\"" + key + "\":");
  return at == std::string::npos ? -1 : std::atol(json.c_str() + at + key.size() + 3);
}

// The sequence number the ring gives its next event: a `since` beyond the newest
// event answers no events and that number.
long next_event(int port) {
  return json_number(http_get(port, "/api/v1/events?since=9000000000000000000&limit=1"), "next");
}

// Milliseconds since the epoch of a time the API writes (2025-05-01T12:00:00.123Z).
double epoch_millis(const std::string& iso) {
  std::tm parts{};
  int millis = 0;
  if (std::sscanf(iso.c_str(), "%d-%d-%dT%d:%d:%d.%dZ", &parts.tm_year, &parts.tm_mon,
                  &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &millis) != 7) {
    return -1;
  }
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  return static_cast<double>(timegm(&parts)) * 1000.0 + millis;
}

double now_epoch_millis() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) * 1000.0 + static_cast<double>(now.tv_nsec) * 1e-6;
}

int run_agent(const std::string& path, long lines, char** command) {
  create_empty(path);
  const std::string dir = path.substr(0, path.rfind('/') + 1);
  write_file(dir + "agent.xml", agent_definition(path));
  write_file(dir + "agent.ini",
             "[agent]\nXRV_HTTP_LISTEN = 127.0.0.1:0\n"
             "CDP_PERFORMANCE_OBJECT_STATUS_CACHE_TTL = 1\n");
  setenv("AGENT_REF_FILE", (dir + "agent.xml").c_str(), 1);
  setenv("XRV_CONFIG_FILE", (dir + "agent.ini").c_str(), 1);
  setenv("XRV_TRACE_FILE", (dir + "agent.trace").c_str(), 1);
  setenv("XRVLOG_STATE_DIR", dir.c_str(), 1);
  Writer writer(path, lines);

  int out = -1;
  const pid_t pid = spawn(command, &out);
  LineReader reader(out);
  std::string line;
  int port = 0;
  while (port == 0 && reader.next_line(std::chrono::seconds(30), &line)) {
    const std::size_t at = line.find("http://127.0.0.1:");
    if (at != std::string::npos) port = std::atoi(line.c_str() + at + 17);
  }
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  const std::string active =
      std::string("\"Query_Name\":\"") + kGroup + "\",\"Object_Status\":\"PERF_OBJECT_ACTIVE\"";
  while (port == 0 || http_get(port, "/api/v1/tables/Performance_Object_Status").find(active) ==
                          std::string::npos) {
    if (port == 0 || Clock::now() > deadline) {
      kill(pid, SIGTERM);
      fail(std::string(command[0]) + " did not start following " + path);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  const long first = next_event(port);  // the first line's event gets this number
  if (first < 1) fail("no answer from /api/v1/events");

  const double cpu_before = other_cpu_seconds(pid);
  const double start_millis = now_epoch_millis();
  const auto start = Clock::now();
  writer.start();
  Result result;
  auto last = start;
  // The newest event's number tells how many were added, whatever the ring still holds.
  while (result.seen < lines) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const long count = next_event(port) - first;
    if (count > result.seen) {
      result.seen = count;
      last = Clock::now();
    } else if (writer.finished() && Clock::now() - last > kStall) {
      break;
    }
  }
  const double polled = seconds(last - start);
  result.cpu = other_cpu_seconds(pid) - cpu_before;
  result.rss_kb = peak_rss_kb("/proc/" + std::to_string(pid) + "/status");
  result.writer = writer.join();
  // The last line's event carries the time it went into the ring.
  const std::string page =
      http_get(port, "/api/v1/events?limit=1&since=" + std::to_string(first + lines - 1));
  const std::size_t time_at = page.find("\"time\":\"");
  const double added_millis =
      time_at == std::string::npos ? -1 : epoch_millis(page.substr(time_at + 8, 24));
  const bool expected =
      page.find("\"seq\":" + std::to_string(first + lines - 1) + ",") != std::string::npos &&
      page.find("\"Access\":\"host=") != std::string::npos;
  result.wall =
      result.seen == lines && added_millis > 0 ? (added_millis - start_millis) / 1000.0 : polled;
  stop(pid, out);

  char extra[64];
  std::snprintf(extra, sizeof extra, " polled=%.3f last_row_ok=%d", polled, expected ? 1 : 0);
  print("agent", lines, result, extra);
  return result.seen == lines && expected ? 0 : 2;
}

[[noreturn]] void usage() {
  std::fprintf(stderr,
               "usage: logtail_bench engine FILE [LINES]\n"
               "       logtail_bench collectd FILE LINES -- PROGRAM [ARGS...]\n"
               "       logtail_bench agent FILE LINES -- XRV_AGENT [ARGS...]\n");
  std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) usage();
  const std::string mode = argv[1];
  const std::string path = argv[2];
  const long lines = argc > 3 ? std::atol(argv[3]) : 1'000'000;
  if (lines <= 0) usage();
  if (mode == "engine" && argc <= 4) return run_engine(path, lines);
  if (mode == "collectd" && argc > 5 && std::strcmp(argv[4], "--") == 0) {
    return run_collectd(path, lines, argv + 5);
  }
  if (mode == "agent" && argc > 5 && std::strcmp(argv[4], "--") == 0) {
    return run_agent(path, lines, argv + 5);
  }
  usage();
}
