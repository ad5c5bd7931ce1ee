#include "tests/unit/test_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "config/config.h"
#include "frame/eloop.h"
#include "tests/config_fixture.h"

int fake_runner::run(const char *cmd, std::string *out, size_t max) {
  if (on_command)
    on_command(cmd);
  commands.emplace_back(cmd);
  for (const canned &c : answers_) {
    if (std::string(cmd).rfind(c.prefix, 0) == 0) {
      if (out && c.status >= 0)
        *out = c.output.substr(0, max);
      return c.status;
    }
  }
  for (const std::string &p : real_)
    if (!out && std::string(cmd).rfind(p, 0) == 0)
      return system(cmd);
  return 0;
}

void finish_commands() {
  for (int i = 0; i < 1000000 && command_count() > 0; i++)
    if (eloop_run_once() != 0)
      break;
}

void fake_runner::answer(const std::string &prefix, const std::string &output, int status) {
  answers_.insert(answers_.begin(), canned{prefix, output, status});
}

void fake_runner::pass_through(const std::string &prefix) { real_.push_back(prefix); }

void fake_runner::forget_answers() { answers_.clear(); }

std::string test_config_json(const std::vector<std::pair<std::string, std::string>> &overrides) {
  return config_fixture_json(overrides);
}

bool write_file(const std::string &path, const std::string &text) {
  std::ofstream f(path, std::ios::binary);
  f << text;
  return static_cast<bool>(f);
}

std::string read_file(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

void load_test_config(const std::vector<std::pair<std::string, std::string>> &overrides) {
  ASSERT_TRUE(write_file("/tmp/test_config.json", test_config_json(overrides)));
  ASSERT_EQ(qz2fh_config_load("/tmp/test_config.json"), 0);
}

std::vector<std::string> list_dir(const std::string &dir) {
  std::vector<std::string> names;
  if (DIR *d = opendir(dir.c_str())) {
    while (dirent *e = readdir(d))
      if (e->d_name[0] != '.')
        names.emplace_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

output_capture::output_capture(int fd) : fd_(fd) {
  fflush(nullptr);
  static int counter;
  path_ = "/tmp/output_capture_" + std::to_string(counter++);
  int file = open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  saved_ = dup(fd_);
  dup2(file, fd_);
  close(file);
}

output_capture::~output_capture() {
  fflush(nullptr);
  dup2(saved_, fd_);
  close(saved_);
}

std::string output_capture::text() {
  fflush(nullptr);
  return read_file(path_);
}
