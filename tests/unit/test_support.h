// Shared helpers of the unit tests.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "frame/command.h"

// Records every command instead of running it; answers commands that
// start with a registered prefix with canned output.
class fake_runner : public command_runner {
 public:
  fake_runner() { command_set_runner(this); }
  ~fake_runner() override { command_set_runner(nullptr); }

  int run(const char *cmd, std::string *out, size_t max) override;

  // Canned answers go before commands let through.
  void answer(const std::string &prefix, const std::string &output, int status = 0);
  void forget_answers();
  // Commands starting with prefix really run (through /bin/sh).
  void pass_through(const std::string &prefix);
  // Called with each command before it is recorded (e.g. to look at files
  // an upload would send).
  std::function<void(const std::string &)> on_command;

  std::vector<std::string> commands;

 private:
  struct canned {
    std::string prefix, output;
    int status;
  };
  std::vector<canned> answers_;
  std::vector<std::string> real_;
};

// Runs the loop until every command started has ended (their callbacks,
// and what those start, included).
void finish_commands();

// A complete configuration with ordinary values; entries of overrides
// ("key", "json value text") replace or, with an empty value, remove keys.
std::string test_config_json(
    const std::vector<std::pair<std::string, std::string>> &overrides = {});
// Writes the text to path; false on failure.
bool write_file(const std::string &path, const std::string &text);
std::string read_file(const std::string &path);
// Loads test_config_json() with the overrides; asserts success.
void load_test_config(const std::vector<std::pair<std::string, std::string>> &overrides = {});
// Names in a directory, sorted.
std::vector<std::string> list_dir(const std::string &dir);
// Captures what the daemon writes to stdout (or another descriptor) while
// alive.
class output_capture {
 public:
  explicit output_capture(int fd = 1);
  ~output_capture();
  std::string text();

 private:
  int fd_;
  int saved_ = -1;
  std::string path_;
};
