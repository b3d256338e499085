#include "cli/do_main.h"

#include <boost/program_options.hpp>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <iostream>
#include <stdexcept>
#include <string>

#include "ftp/ftp_settings.h"
#include "listing/list_command.h"
#include "ops/download.h"
#include "ops/remove.h"
#include "ops/upload.h"
#include "util/run_as_user.h"

namespace po = boost::program_options;

namespace {

// The command whose switch is on; exactly one is, once help is ruled out.
std::string chosen_command(const po::variables_map& values) {
  for (const char* command : {"upload", "download", "remove", "list"})
    if (values.at(command).as<bool>()) return command;
  return "";
}

// Whether to register an option that only some commands take: always when
// help is shown (its help text then says which commands take it), otherwise
// only when the chosen command is among `commands`.
bool takes_option(bool help, const std::string& command,
                  std::initializer_list<const char*> commands) {
  if (help) return true;
  for (const char* taker : commands)
    if (command == taker) return true;
  return false;
}

}  // namespace

int do_main(int argc, char** argv) {
  FtpSettings settings;
  // The paths are taken as typed: a string value keeps blanks and quotes
  // that a path's stream extraction would interpret.
  std::string remote_path_text;
  std::string local_path_text;

  // The option tables read as tables: one option a line group.
  // clang-format off
  po::options_description commands("Available commands");
  commands.add_options()
      ("upload", po::bool_switch(), "upload local file to ftp server")
      ("download", po::bool_switch(),
       "download remote file from ftp server to local file")
      ("remove", po::bool_switch(), "remove remote file on ftp server")
      ("list", po::bool_switch(), "list ftp contents")
      ("help,h", po::bool_switch(), "show help message");

  po::options_description options("Options");
  options.add_options()
      ("host", po::value<std::string>(&settings.host)->required(),
       "ftp server host name")
      ("port", po::value<std::uint16_t>(&settings.port)->default_value(21),
       "ftp server port")
      ("login", po::value<std::string>(&settings.login),
       "login of ftp user (can also be specified by 'FTP_LOGIN' environment "
       "variable)")
      ("password", po::value<std::string>(&settings.password),
       "password of ftp user (can also be specified by 'FTP_PASSWORD' "
       "environment variable)")
      ("passive-mode",
       po::value<bool>(&settings.passive_mode)->default_value(true),
       "use ftp passive mode")
      ("retry", po::value<std::uint64_t>(&settings.retries)->default_value(0),
       "retry this number of times before giving up")
      ("retry-delay",
       po::value<std::uint64_t>(&settings.retry_delay)
           ->notifier([&settings](std::uint64_t) {
             settings.retry_delay_step = 0;
           }),
       "make brindle sleep this amount of time before each retry when a "
       "transfer has failed with a transient error (it changes the default "
       "backoff time algorithm between retries)")
      ("remote-path", po::value<std::string>(&remote_path_text)->required(),
       "remote path");
  // clang-format on

  po::options_description top("Usage: brindle <command> [options]");
  top.add(commands);

  // First pass: only the command switches are known; everything else is
  // passed over until the command, and with it its options, is known.
  po::variables_map values;
  po::store(po::command_line_parser(argc, argv)
                .options(top)
                .allow_unregistered()
                .run(),
            values);

  const bool help = values.at("help").as<bool>();
  if (!help) {
    std::size_t chosen = 0;
    for (const auto& value : values)
      if (value.second.as<bool>()) ++chosen;
    if (values.empty() || chosen != 1)
      throw std::logic_error("Exactly one command should be specified!");
  }
  const std::string command = help ? "" : chosen_command(values);

  auto remark = [help](const char* text, const char* note) {
    return std::string(text) + (help ? note : "");
  };
  if (takes_option(help, command, {"download", "upload"})) {
    options.add_options()(
        "local-user",
        po::value<std::string>()->required()->notifier(
            [](const std::string& name) {
              torvane::run_as_local_user(name.c_str(), false, false);
            }),
        remark("run with username rights", " (download or upload only)")
            .c_str());
  }
  if (takes_option(help, command, {"download", "upload"})) {
    options.add_options()(
        "local-path", po::value<std::string>(&local_path_text)->required(),
        remark("local path", " (download or upload only)").c_str());
  }
  if (takes_option(help, command, {"download", "upload", "remove"})) {
    options.add_options()("recursive", po::bool_switch(),
                          remark("perform command recursively",
                                 " (download, upload or remove only)")
                              .c_str());
  }
  if (takes_option(help, command, {"download", "upload"})) {
    options.add_options()(
        "follow-symlinks", po::bool_switch(),
        remark("dereference symlinks", " (download or upload only)").c_str());
  }
  if (takes_option(help, command, {"list"})) {
    options.add_options()(
        "long-listing", po::bool_switch(),
        remark("use a long listing format", " (list only)").c_str());
  }
  top.add(options);

  if (help) {
    std::cout << top << "\n" << std::flush;
    return 0;
  }

  // Second pass: the chosen command's options, nothing unknown allowed. No
  // positional arguments are declared, so a stray word is refused as well
  // instead of being passed over.
  const po::positional_options_description no_positional;
  po::store(po::command_line_parser(argc, argv)
                .options(top)
                .positional(no_positional)
                .run(),
            values);
  // Checks the required options, stores the values and runs the notifiers:
  // the switch to the local user happens here, before anything else.
  po::notify(values);

  if (values.count("login") == 0)
    if (const char* login = std::getenv("FTP_LOGIN")) settings.login = login;
  if (values.count("password") == 0)
    if (const char* password = std::getenv("FTP_PASSWORD"))
      settings.password = password;

  const std::filesystem::path remote_path(remote_path_text);
  const std::filesystem::path local_path(local_path_text);
  if (values.at("upload").as<bool>()) {
    const bool follow_symlinks = values.at("follow-symlinks").as<bool>();
    const bool recursive = values.at("recursive").as<bool>();
    upload_command(settings, local_path, remote_path, recursive,
                   follow_symlinks);
  } else if (values.at("download").as<bool>()) {
    const bool follow_symlinks = values.at("follow-symlinks").as<bool>();
    const bool recursive = values.at("recursive").as<bool>();
    download_command(settings, remote_path, local_path, recursive,
                     follow_symlinks);
  } else if (values.at("remove").as<bool>()) {
    remove_command(settings, remote_path, values.at("recursive").as<bool>());
  } else if (values.at("list").as<bool>()) {
    list_command(settings, remote_path, values.at("long-listing").as<bool>());
  }
  return 0;
}
