#include "ftp/transfer_runner.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "support/refusing_port.h"

// Shows a wait path by name in test output.
void PrintTo(WaitPath path, std::ostream* out) {
  *out << (path == WaitPath::easy ? "easy" : "multi");
}

namespace {

namespace fs = std::filesystem;

TEST(ChooseWaitPath, TakesTheMultiHandleBeforeLibcurl840) {
  EXPECT_EQ(choose_wait_path(0x075801, nullptr), WaitPath::multi);  // 7.88.1
  EXPECT_EQ(choose_wait_path(0x0803ff, nullptr), WaitPath::multi);
  EXPECT_EQ(choose_wait_path(0x080400, nullptr), WaitPath::easy);
  EXPECT_EQ(choose_wait_path(0x080e01, nullptr), WaitPath::easy);  // 8.14.1
}

TEST(ChooseWaitPath, FollowsTheTestVariableWhenItNamesAPath) {
  EXPECT_EQ(choose_wait_path(0x075801, "easy"), WaitPath::easy);
  EXPECT_EQ(choose_wait_path(0x080e01, "multi"), WaitPath::multi);
}

TEST(ChooseWaitPath, IgnoresAnyOtherValueOfTheTestVariable) {
  for (const char* value : {"", "auto", "Multi", "easy ", "1"}) {
    EXPECT_EQ(choose_wait_path(0x075801, value), WaitPath::multi) << value;
    EXPECT_EQ(choose_wait_path(0x080400, value), WaitPath::easy) << value;
  }
}

TEST(WaitPathOfThisProcess, FollowsTheRunningLibcurlAndTheTestVariable) {
  const char* forced = std::getenv(kWaitPathTestVariable);
  const bool old = curl_version_info(CURLVERSION_NOW)->version_num < 0x080400;
  WaitPath expected = old ? WaitPath::multi : WaitPath::easy;
  if (forced != nullptr && std::string(forced) == "easy")
    expected = WaitPath::easy;
  if (forced != nullptr && std::string(forced) == "multi")
    expected = WaitPath::multi;
  EXPECT_EQ(wait_path_of_this_process(), expected);
}

TEST(TransferRunner, OwnsAMultiHandleOnlyOnTheMultiPath) {
  EXPECT_EQ(TransferRunner(WaitPath::easy).path(), WaitPath::easy);
  EXPECT_EQ(TransferRunner(WaitPath::multi).path(), WaitPath::multi);
}

struct EasyDeleter {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct MultiDeleter {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};

size_t append_to_string(char* data, size_t size, size_t count, void* text) {
  static_cast<std::string*>(text)->append(data, size * count);
  return size * count;
}

size_t refuse_data(char* /*data*/, size_t /*size*/, size_t /*count*/,
                   void* /*unused*/) {
  return 0;
}

// One easy handle with its error buffer, run by a runner of the path under
// test.
class TransferRunnerOnEachPath : public ::testing::TestWithParam<WaitPath> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(easy_);
    curl_easy_setopt(easy_.get(), CURLOPT_ERRORBUFFER, error_);
    dir_ = fs::temp_directory_path() /
           ("brindle-runner-test-" + std::to_string(getpid()));
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // A local file of `content`, and its file:// URL.
  std::string file_url(const std::string& name, const std::string& content) {
    std::ofstream(dir_ / name, std::ios::binary) << content;
    return "file://" + (dir_ / name).native();
  }

  // Runs a download of `url` into `received`.
  CURLcode download(const std::string& url, std::string& received) {
    curl_easy_setopt(easy_.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy_.get(), CURLOPT_WRITEFUNCTION, &append_to_string);
    curl_easy_setopt(easy_.get(), CURLOPT_WRITEDATA,
                     static_cast<void*>(&received));
    error_[0] = '\0';
    return runner_.run(easy_.get(), error_);
  }

  TransferRunner runner_{GetParam()};
  std::unique_ptr<CURL, EasyDeleter> easy_{curl_easy_init()};
  char error_[CURL_ERROR_SIZE] = {};
  fs::path dir_;
};

TEST_P(TransferRunnerOnEachPath, RunsATransferToItsEnd) {
  const std::string content(100000, 'x');
  std::string received;
  EXPECT_EQ(download(file_url("a", content), received), CURLE_OK);
  EXPECT_EQ(received, content);
  EXPECT_STREQ(error_, "");
}

TEST_P(TransferRunnerOnEachPath, RunsTheSameHandleAgain) {
  std::string first;
  std::string second;
  EXPECT_EQ(download(file_url("a", "first"), first), CURLE_OK);
  curl_easy_reset(easy_.get());
  curl_easy_setopt(easy_.get(), CURLOPT_ERRORBUFFER, error_);
  EXPECT_EQ(download(file_url("b", "second"), second), CURLE_OK);
  EXPECT_EQ(first, "first");
  EXPECT_EQ(second, "second");
}

TEST_P(TransferRunnerOnEachPath, GivesTheTransfersOwnFailureAndText) {
  std::string received;
  const std::string missing = "file://" + (dir_ / "missing").native();
  EXPECT_EQ(download(missing, received), CURLE_FILE_COULDNT_READ_FILE);
  const std::string missing_text = error_;
  EXPECT_NE(missing_text, "");

  curl_easy_setopt(easy_.get(), CURLOPT_URL, file_url("a", "data").c_str());
  curl_easy_setopt(easy_.get(), CURLOPT_WRITEFUNCTION, &refuse_data);
  error_[0] = '\0';
  EXPECT_EQ(runner_.run(easy_.get(), error_), CURLE_WRITE_ERROR);
  const std::string write_text = error_;
  EXPECT_NE(write_text, "");

  // The same texts as curl_easy_perform() gives.
  std::unique_ptr<CURL, EasyDeleter> reference(curl_easy_init());
  char reference_error[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(reference.get(), CURLOPT_ERRORBUFFER, reference_error);
  curl_easy_setopt(reference.get(), CURLOPT_URL, missing.c_str());
  curl_easy_setopt(reference.get(), CURLOPT_WRITEFUNCTION, &refuse_data);
  EXPECT_EQ(curl_easy_perform(reference.get()), CURLE_FILE_COULDNT_READ_FILE);
  EXPECT_EQ(missing_text, reference_error);
  reference_error[0] = '\0';
  curl_easy_setopt(reference.get(), CURLOPT_URL, file_url("a", "data").c_str());
  EXPECT_EQ(curl_easy_perform(reference.get()), CURLE_WRITE_ERROR);
  EXPECT_EQ(write_text, reference_error);
}

TEST_P(TransferRunnerOnEachPath, ReportsARefusedConnectionAsTheLibraryDoes) {
  RefusingPort refusing;
  std::string received;
  const std::string url =
      "ftp://127.0.0.1:" + std::to_string(refusing.port()) + "/x";
  EXPECT_EQ(download(url, received), CURLE_COULDNT_CONNECT);
  const std::string text = error_;

  std::unique_ptr<CURL, EasyDeleter> reference(curl_easy_init());
  char reference_error[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(reference.get(), CURLOPT_ERRORBUFFER, reference_error);
  curl_easy_setopt(reference.get(), CURLOPT_URL, url.c_str());
  EXPECT_EQ(curl_easy_perform(reference.get()), CURLE_COULDNT_CONNECT);
  // Equal but for the milliseconds that the attempt took.
  const std::regex digits("[0-9]+ ms");
  EXPECT_EQ(std::regex_replace(text, digits, "N ms"),
            std::regex_replace(std::string(reference_error), digits, "N ms"));
  EXPECT_NE(text, "");
}

TEST_P(TransferRunnerOnEachPath, LeavesTheHandleFreeForAnotherMultiHandle) {
  std::string received;
  EXPECT_EQ(download(file_url("a", "data"), received), CURLE_OK);
  const std::unique_ptr<CURLM, MultiDeleter> other(curl_multi_init());
  EXPECT_EQ(curl_multi_add_handle(other.get(), easy_.get()), CURLM_OK);
  EXPECT_EQ(curl_multi_remove_handle(other.get(), easy_.get()), CURLM_OK);
}

INSTANTIATE_TEST_SUITE_P(Paths, TransferRunnerOnEachPath,
                         ::testing::Values(WaitPath::easy, WaitPath::multi),
                         [](const ::testing::TestParamInfo<WaitPath>& info) {
                           return info.param == WaitPath::easy ? "easy"
                                                               : "multi";
                         });

TEST(TransferRunner, EndsAsTheEasyInterfaceDoesWhenTheHandleCannotBeAdded) {
  TransferRunner runner(WaitPath::multi);
  const std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
  char error[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(easy.get(), CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(easy.get(), CURLOPT_URL, "file:///dev/null");
  // A handle that another multi handle holds cannot be added.
  const std::unique_ptr<CURLM, MultiDeleter> other(curl_multi_init());
  ASSERT_EQ(curl_multi_add_handle(other.get(), easy.get()), CURLM_OK);
  EXPECT_EQ(runner.run(easy.get(), error), CURLE_FAILED_INIT);
  EXPECT_STREQ(error, curl_multi_strerror(CURLM_ADDED_ALREADY));
  EXPECT_EQ(curl_easy_perform(easy.get()), CURLE_FAILED_INIT);
  curl_multi_remove_handle(other.get(), easy.get());
}

}  // namespace
