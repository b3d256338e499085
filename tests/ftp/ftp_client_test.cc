#include "ftp/ftp_client.h"

#include <sys/socket.h>

#include <curl/curl.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/refusing_port.h"
#include "util/torvane_util_exception.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

// The description of a result code by the libcurl in use: releases word
// some of them differently.
std::string library_text(CURLcode code) { return curl_easy_strerror(code); }

// A regular expression that matches exactly the given text.
std::string quoted(const std::string& text) {
  std::string pattern;
  for (const char c : text) {
    if (std::strchr(".[]()*+?{}|^$\\", c) != nullptr) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

FtpSettings settings_for(std::uint16_t port) {
  FtpSettings settings;
  settings.host = "127.0.0.1";
  settings.port = port;
  return settings;
}

std::string failure_of(FtpClient& client, const std::string& path) {
  try {
    client.perform(path);
  } catch (const torvane::TorvaneUtilException& error) {
    return error.what();
  }
  return "no exception";
}

TEST(FtpSettings, StartWithTheDocumentedValues) {
  const FtpSettings settings;
  EXPECT_EQ(settings.host, "");
  EXPECT_EQ(settings.port, 21);
  EXPECT_EQ(settings.login, "");
  EXPECT_EQ(settings.password, "");
  EXPECT_TRUE(settings.passive_mode);
  EXPECT_EQ(settings.retries, 0u);
  EXPECT_EQ(settings.retry_delay, 0u);
  EXPECT_EQ(settings.retry_delay_step, 1u);
}

TEST(FtpClient, KeepsTheSettingsItWasBuiltFrom) {
  FtpSettings settings = settings_for(2121);
  settings.login = "user";
  settings.passive_mode = false;
  const FtpClient client(settings);
  EXPECT_EQ(client.settings().port, 2121);
  EXPECT_EQ(client.settings().login, "user");
  EXPECT_FALSE(client.settings().passive_mode);
}

TEST(FtpClient, RefusedOptionNamesTheCodeAndTheLibraryText) {
  FtpClient client(settings_for(21));
  try {
    client.set_option(static_cast<CURLoption>(9999), 1L);
    FAIL() << "no exception";
  } catch (const torvane::TorvaneUtilException& error) {
    EXPECT_EQ(error.what(), "Unable to setup curl: [48] " +
                                library_text(CURLE_UNKNOWN_OPTION));
  }
}

TEST(FtpClient, FailedRequestNamesTheUrlAndTheLibraryErrorText) {
  RefusingPort refusing;
  FtpClient client(settings_for(refusing.port()));
  const std::string port = std::to_string(refusing.port());
  EXPECT_THAT(
      failure_of(client, "/my dir/f#1"),
      MatchesRegex(
          "Unable to perform request for 'ftp://127\\.0\\.0\\.1:" + port +
          "/my%20dir/f%231': Failed to connect to "
          // "HOST port PORT" up to Debian 13's libcurl, "HOST:PORT" in
          // unstable's 8.23.
          "127\\.0\\.0\\.1( port |:)" +
          port +
          " after [0-9]+ ms: " + quoted(library_text(CURLE_COULDNT_CONNECT))));
}

TEST(FtpClient, StaysUsableAfterAFailedRequest) {
  RefusingPort refusing;
  FtpClient client(settings_for(refusing.port()));
  const std::string first = failure_of(client, "/a");
  const std::string second = failure_of(client, "/b");
  EXPECT_THAT(first,
              StartsWith("Unable to perform request for 'ftp://127.0.0.1:" +
                         std::to_string(refusing.port()) + "/a': Failed"));
  EXPECT_THAT(second,
              StartsWith("Unable to perform request for 'ftp://127.0.0.1:" +
                         std::to_string(refusing.port()) + "/b': Failed"));
}

TEST(FtpClient, KnowsNoLoginDirectoryWithoutALogin) {
  RefusingPort refusing;
  FtpClient client(settings_for(refusing.port()));
  EXPECT_EQ(client.login_directory(), std::nullopt);
  failure_of(client, "/a");
  EXPECT_EQ(client.login_directory(), std::nullopt);
}

// Counts the sockets that the library opens, one for each connection attempt
// to a loopback address.
curl_socket_t count_socket(void* opened, curlsocktype /*purpose*/,
                           curl_sockaddr* address) {
  ++*static_cast<int*>(opened);
  return socket(address->family, address->socktype, address->protocol);
}

// The attempts and the waits of one failing request through an FtpClient.
struct RetryRecord {
  int attempts = 0;
  std::vector<unsigned int> sleeps;
};

RetryRecord record_retries(FtpSettings settings) {
  RetryRecord record;
  FtpClient client(std::move(settings), [&record](unsigned int seconds) {
    record.sleeps.push_back(seconds);
  });
  client.set_option(CURLOPT_OPENSOCKETFUNCTION, &count_socket);
  client.set_option(CURLOPT_OPENSOCKETDATA,
                    static_cast<void*>(&record.attempts));
  EXPECT_THAT(failure_of(client, "/x"),
              StartsWith("Unable to perform request for 'ftp://127.0.0.1:"));
  return record;
}

TEST(FtpClient, RetriesWithoutWaitingWhenTheDelayIsZero) {
  RefusingPort refusing;
  FtpSettings settings = settings_for(refusing.port());
  settings.retries = 3;
  settings.retry_delay_step = 0;
  const RetryRecord record = record_retries(settings);
  EXPECT_EQ(record.attempts, 4);
  EXPECT_THAT(record.sleeps, IsEmpty());
}

TEST(FtpClient, WaitsLongerBeforeEachRetryByDefault) {
  RefusingPort refusing;
  FtpSettings settings = settings_for(refusing.port());
  settings.retries = 3;
  const RetryRecord record = record_retries(settings);
  EXPECT_EQ(record.attempts, 4);
  EXPECT_THAT(record.sleeps, ElementsAre(1u, 2u));
}

TEST(FtpClient, AMovedClientReportsIntoItsOwnErrorBuffer) {
  RefusingPort refusing;
  FtpClient original(settings_for(refusing.port()));
  FtpClient moved(std::move(original));
  EXPECT_THAT(failure_of(moved, "/x"),
              MatchesRegex(".*': Failed to connect .*"));

  FtpClient assigned(settings_for(1));
  assigned = std::move(moved);
  EXPECT_THAT(failure_of(assigned, "/y"),
              MatchesRegex(".*/y': Failed to connect .*"));
}

}  // namespace
