#include "output/spool.h"

#include <sys/wait.h>

#include <cstdio>

#include "config/config.h"
#include "frame/command.h"
#include "frame/log.h"
#include "frame/paths.h"
#include "frame/text.h"
#include "output/names.h"
#include "output/trusted_dir.h"

namespace {

// A command cut to its buffer could run something else than meant.
bool command_fits(int n, const char *func) {
  if (n < 0 || static_cast<size_t>(n) >= COMMAND_SIZE) {
    log_msg_as(func, ERROR, "command longer than %d bytes, not run\n",
               static_cast<int>(COMMAND_SIZE) - 1);
    return false;
  }
  return true;
}

}  // namespace

spool_dir spool_dir_of(uint32_t id) {
  spool_dir dir;
  snprintf(dir.path, sizeof(dir.path), QZ_SPOOL_DIR_FORMAT, static_cast<int>(id));
  return dir;
}

bool spool_dir_check(const spool_dir &dir, upload_counters *counters, bool warn_missing) {
  switch (trusted_dir_ensure(dir.path, warn_missing)) {
    case trusted_dir_result::ok:
      return true;
    case trusted_dir_result::made:
      if (warn_missing)
        counters->dirs_replaced++;
      return true;
    case trusted_dir_result::replaced:
      counters->dirs_replaced++;
      return true;
    case trusted_dir_result::failed:
      break;
  }
  return false;
}

void qz2fh_create_dir(const spool_dir &dir) {
  char cmd[COMMAND_SIZE];
  snprintf(cmd, sizeof(cmd), "mkdir %s 2>/dev/null", dir.path);
  log_msg(DEBUG, "%s\n", cmd);
  command_system(cmd);
}

bool spool_rm_command(const spool_dir &dir, char *cmd) {
  if (!command_fits(snprintf(cmd, COMMAND_SIZE, "rm %s/* 2>/dev/null", dir.path), "qz2fh_delete_dir_file"))
    return false;
  log_msg_as("qz2fh_delete_dir_file", DEBUG, "%s\n", cmd);
  return true;
}

int qz2fh_delete_dir_file(const spool_dir &dir) {
  char cmd[COMMAND_SIZE];
  return spool_rm_command(dir, cmd) ? command_system(cmd) : -1;
}

bool spool_zip_command(const spool_dir &spool, const char *zip_name, char *cmd) {
  static const char func[] = "qz2fh_form_zip_file";
  char zip_path[SPOOL_PATH_SIZE];
  if (!name_path(zip_path, sizeof(zip_path), spool.path, zip_name))
    return command_fits(-1, func);
  // "&&": zip -m run anywhere but in the spool directory would move
  // whatever lies there into the zip.
  if (!command_fits(snprintf(cmd, COMMAND_SIZE, "cd %s && zip -m %s ./* 2>/dev/null", spool.path,
                             text_shell_word(zip_path).c_str()),
                    func))
    return false;
  log_msg_as(func, DEBUG, "%s\n", cmd);
  return true;
}

int qz2fh_form_zip_file(const spool_dir &spool, const char *zip_name) {
  char cmd[COMMAND_SIZE];
  return spool_zip_command(spool, zip_name, cmd) ? command_system(cmd, COMMAND_ZIP) : -1;
}

bool spool_upload_command(const char *local_path, const spool_dir &dir, char *cmd) {
  static const char func[] = "qz2fh_send_zip_file";
  const std::string local = text_shell_word(local_path);
  const std::string user = text_url_credential(qz2fh_get_ftp_username());
  const std::string host = text_shell_word(qz2fh_get_ftp_ip());
  const std::string port = text_shell_word(qz2fh_get_ftp_port());
  const std::string remote = text_shell_word(dir.path);
  if (!command_fits(snprintf(cmd, COMMAND_SIZE, "wput -t 2 %s ftp://%s:\"%s\"@%s:%s/%s -B -q",
                             local.c_str(), user.c_str(),
                             text_url_credential(qz2fh_get_ftp_password()).c_str(), host.c_str(),
                             port.c_str(), remote.c_str()),
                    func))
    return false;
  char shown[COMMAND_SIZE + 32];
  snprintf(shown, sizeof(shown), "wput -t 2 %s ftp://%s:\"%s\"@%s:%s/%s -B -q", local.c_str(),
           user.c_str(), "[KEY DATA REMOVED]", host.c_str(), port.c_str(), remote.c_str());
  log_msg_as(func, DEBUG, "system cmd: %s\n", shown);
  return true;
}

int upload_status(int wait_status) {
  if (wait_status == -1 || !WIFEXITED(wait_status))
    return -1;
  return WEXITSTATUS(wait_status);
}
