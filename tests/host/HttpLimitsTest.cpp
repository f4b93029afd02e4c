// The host's HTTP server against clients that misbehave: slow, idle, oversized,
// too many, or speaking the wrong method; and with HTTPS and basic authentication.

#include <crypt.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "framework/Configuration.h"
#include "framework/Framework.h"
#include "host/StandaloneHost.h"
#include "support/Files.h"
#include "support/RawConnection.h"

namespace XRV::host {
namespace {

using XRV::testing::RawConnection;
using XRV::testing::commandOutput;

using Clock = std::chrono::steady_clock;

std::string statusLine(const std::string& answer) { return answer.substr(0, answer.find("\r\n")); }

class HttpLimitsTest : public ::testing::Test {
 protected:
  void start(const std::vector<std::pair<const char*, std::string>>& settings = {}) {
    setConfigurationProperty("XRV_HTTP_LISTEN", "127.0.0.1:0");
    setConfigurationProperty("XRV_HTTP_THREADS", "4");
    for (const auto& [name, value] : settings) {
      setConfigurationProperty(name, value.c_str());
    }
    host_ = std::make_unique<StandaloneHost>();
    fwSetHost(host_.get());
    fwRegisterAgentLoader([] { return 0; });
    runner_ = std::thread([this] { host_->run(0, nullptr); });
    ASSERT_TRUE(host_->waitUntilServing(std::chrono::seconds(10)));
    port_ = host_->httpPort();
  }
  void TearDown() override {
    if (runner_.joinable()) {
      host_->requestStop();
      runner_.join();
    }
    fwSetHost(nullptr);
    host_.reset();
    resetConfigurationForTesting();
  }

  // The status of GET `path` on a fresh connection.
  int status(const std::string& path) {
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(10, 0);
    httplib::Result result = client.Get(path);
    return result ? result->status : 0;
  }

  std::unique_ptr<StandaloneHost> host_;
  std::thread runner_;
  int port_ = 0;
};

TEST_F(HttpLimitsTest, ARequestHeadMustArriveWithinItsDeadline) {
  start({{"XRV_HTTP_HEAD_TIMEOUT", "1"}});
  RawConnection idle(port_);
  RawConnection trickling(port_);
  trickling.send("GET /healthz HTTP/1.1\r\n");
  const Clock::time_point begin = Clock::now();
  bool closed = false;
  for (int i = 0; i < 20 && !closed; ++i) {
    trickling.send("X");  // a byte every 150 ms keeps an inactivity timer from firing
    trickling.read(0.15, &closed);
  }
  EXPECT_TRUE(closed) << "a trickled head keeps its connection";
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - begin).count(), 2.9);
  idle.read(2.5, &closed);
  EXPECT_TRUE(closed) << "an idle connection is closed by the same deadline";
  EXPECT_EQ(status("/healthz"), 200);
}

TEST_F(HttpLimitsTest, RefusesWhatItWillNotServeAndClosesTheConnection) {
  start();
  std::string manyHeaders;
  for (int i = 0; i < 101; ++i) {
    manyHeaders += "X-" + std::to_string(i) + ": v\r\n";
  }
  std::string hugeHead;
  for (int i = 0; i < 100000; ++i) {
    hugeHead += "X: v\r\n";
  }
  const std::string chunk = "4000\r\n" + std::string(0x4000, 'x') + "\r\n";
  std::string chunked;
  for (int i = 0; i < 12; ++i) {
    chunked += chunk;
  }
  struct Case {
    const char* name;
    std::string request;
    const char* status;
    const char* allow;
  };
  const Case cases[] = {
      {"101 header fields", "GET /healthz HTTP/1.1\r\n" + manyHeaders + "\r\n", "HTTP/1.1 431", nullptr},
      {"100,000 header fields", "GET /healthz HTTP/1.1\r\n" + hugeHead + "\r\n", "HTTP/1.1 431", nullptr},
      {"a chunked body, refused before it is read",
       "POST /api/v1/shutdown HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + chunked,
       "HTTP/1.1 411", nullptr},
      {"a body beyond 64 KB", "POST /api/v1/shutdown HTTP/1.1\r\nContent-Length: 70000\r\n\r\n",
       "HTTP/1.1 413", nullptr},
      {"GET on the shutdown", "GET /api/v1/shutdown HTTP/1.1\r\n\r\n", "HTTP/1.1 405", "Allow: POST"},
      {"POST on a table", "POST /api/v1/tables HTTP/1.1\r\nContent-Length: 0\r\n\r\n",
       "HTTP/1.1 405", "Allow: GET"},
      {"an unknown path", "GET /nothing HTTP/1.1\r\n\r\n", "HTTP/1.1 404", nullptr},
      // "": closed with a 400 or without an answer.
      {"a request line that is not one", "GARBAGE\r\n\r\n", "", nullptr},
      {"a path beyond the limit", "GET /api/v1/tables/" + std::string(20000, 'a') + " HTTP/1.1\r\n\r\n",
       "HTTP/1.1 414", nullptr},
      {"a path that does not decode", "GET /api/v1/tables/%ZZ%00%ff HTTP/1.1\r\nHost: x\r\n\r\n",
       "HTTP/1.1 404", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawConnection connection(port_);
    // Sent piece by piece, reading in between, as a client that notices the answer:
    // bytes still unread when the server closes would reset the connection.
    bool closed = false;
    std::string answer;
    for (size_t sent = 0; sent < c.request.size() && !closed && answer.empty(); sent += 16384) {
      connection.send(c.request.substr(sent, 16384));
      answer += connection.read(0.05, &closed);
    }
    if (!closed) {
      answer += connection.read(5, &closed);
    }
    if (*c.status == '\0') {
      EXPECT_TRUE(answer.empty() || answer.rfind("HTTP/1.1 400", 0) == 0) << answer;
    } else {
      EXPECT_EQ(answer.substr(0, 12), c.status) << answer;
    }
    if (c.allow != nullptr) {
      EXPECT_NE(answer.find(c.allow), std::string::npos) << answer;
    }
    EXPECT_TRUE(closed) << "the connection stays open after an error";
  }
  EXPECT_EQ(status("/healthz"), 200);
}

TEST_F(HttpLimitsTest, OneAddressGetsOnlyItsShareOfConnections) {
  start({{"XRV_HTTP_MAX_CONNECTIONS_PER_ADDRESS", "3"}});
  // One after the other: with several event loops, connections opened together
  // may be accepted in any order.
  std::vector<std::unique_ptr<RawConnection>> mine;
  for (int i = 0; i < 3; ++i) {
    mine.push_back(std::make_unique<RawConnection>(port_, "127.0.2.1"));
    mine.back()->send("GET /healthz HTTP/1.1\r\n\r\n");
    EXPECT_EQ(statusLine(mine.back()->read(5, nullptr, "\r\n\r\n")), "HTTP/1.1 200 OK")
        << "connection " << i;
  }
  RawConnection fourth(port_, "127.0.2.1");
  bool closed = false;
  fourth.send("GET /healthz HTTP/1.1\r\n\r\n");
  fourth.read(2, &closed);
  EXPECT_TRUE(closed) << "a fourth connection from the same address";
  EXPECT_EQ(status("/healthz"), 200) << "other addresses are served";
}

TEST_F(HttpLimitsTest, HttpsWithBasicAuthenticationForReading) {
  char directory[] = "/tmp/xrv-tls-XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const std::string dir = directory;
  commandOutput("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost -keyout " + dir +
         "/key.pem -out " + dir + "/cert.pem 2>/dev/null");
  char salt[64];
  ASSERT_NE(crypt_gensalt_rn("$2b$", 5, nullptr, 0, salt, sizeof salt), nullptr);
  crypt_data data{};
  std::ofstream(dir + "/users") << "# readers\nalice: " << crypt_rn("s3cret", salt, &data, sizeof data)
                                << "\n";
  start({{"XRV_HTTP_TLS_CERT", dir + "/cert.pem"},
         {"XRV_HTTP_TLS_KEY", dir + "/key.pem"},
         {"XRV_HTTP_USERS_FILE", dir + "/users"},
         {"XRV_ADMIN_TOKEN", "tok"}});
  const std::string url = "https://127.0.0.1:" + std::to_string(port_);
  // -m: an event stream answers at once and goes on.
  const std::string curl = "curl -sk -m 1 -o /dev/null -w '%{http_code}' ";
  struct Case {
    const char* credentials;
    const char* path;
    const char* expected;
  };
  for (const Case& c :
       {Case{"", "/api/v1/tables", "401"}, Case{"-u alice:wrong ", "/healthz", "401"},
        Case{"-u bob:s3cret ", "/healthz", "401"},
        Case{"-u alice:s3cret ", "/api/v1/tables", "200"},
        Case{"-u alice:s3cret ", "/healthz", "200"}, Case{"", "/api/v1/events/stream", "401"},
        Case{"-u alice:wrong ", "/api/v1/events/stream", "401"},
        Case{"-u alice:s3cret ", "/api/v1/events/stream", "200"}}) {
    SCOPED_TRACE(std::string(c.credentials) + c.path);
    EXPECT_EQ(commandOutput(curl + c.credentials + url + c.path), c.expected);
  }
  EXPECT_EQ(commandOutput("curl -s -o /dev/null -w '%{http_code}' http://127.0.0.1:" +
                   std::to_string(port_) + "/healthz"),
            "000")
      << "plain HTTP on an HTTPS port";
  // The shutdown keeps its token, and needs no user.
  EXPECT_EQ(commandOutput(curl + "-X POST -H 'Authorization: Bearer bad' " + url + "/api/v1/shutdown"), "401");
  EXPECT_EQ(commandOutput(curl + "-X POST -H 'Authorization: Bearer tok' " + url + "/api/v1/shutdown"), "202");
  runner_.join();
  commandOutput("rm -rf " + dir);
}

TEST(HttpLimitsStart, RefusesAUsersFileWithoutHashesOrHalfATlsSetting) {
  const std::string users = XRV::testing::temporaryFile("xrv-users");
  std::ofstream(users) << "alice: secret\n";
  for (const auto& [name, value] : {std::pair<const char*, const char*>{"XRV_HTTP_USERS_FILE", users.c_str()},
                                    {"XRV_HTTP_TLS_CERT", "/etc/hostname"}}) {
    SCOPED_TRACE(name);
    setConfigurationProperty("XRV_HTTP_LISTEN", "127.0.0.1:0");
    setConfigurationProperty(name, value);
    StandaloneHost host;
    fwSetHost(&host);
    host.registerAgentLoader([] { return 0; });
    EXPECT_EQ(host.run(0, nullptr), 1);
    fwSetHost(nullptr);
    resetConfigurationForTesting();
  }
  unlink(users.c_str());
}

}  // namespace
}  // namespace XRV::host
