#include "output/upload.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "frame/log.h"

namespace {

upload_tail *tail_of(command_job *job) { return static_cast<upload_tail *>(job->owner); }

void resent(command_job *job, int wait_status);

// The next kept file, or the end of the cycle.
void resend_next(upload_tail *t) {
  if (!unsent_enabled() || !t->sent || t->resent == UNSENT_RESEND_MAX) {
    upload_end(t);
    return;
  }
  const std::vector<unsent_file> kept = unsent_files(t->id);
  if (kept.empty()) {
    upload_end(t);
    return;
  }
  snprintf(t->path, sizeof(t->path), "%s", kept[0].path);
  char cmd[COMMAND_SIZE];
  if (!spool_upload_command(t->path, t->spool, cmd)) {
    upload_end(t);
    return;
  }
  if (command_start(&t->job, cmd, COMMAND_UPLOAD, resent) != 0)
    resent(&t->job, -1);
}

void resent(command_job *job, int wait_status) {
  upload_tail *t = tail_of(job);
  const int status = upload_status(wait_status);
  const char *slash = strrchr(t->path, '/');
  const char *name = slash ? slash + 1 : t->path;
  t->counters->last_upload_status = status;
  if (status != 0) {
    t->counters->uploads_failed++;
    log_msg_as("unsent_resend", DEBUG, "kept file %s not sent again: status %d\n", name, status);
    t->sent = false;
  } else {
    t->counters->uploads_ok++;
    log_msg_as("unsent_resend", DEBUG, "sent kept file :%s\n", name);
    unlink(t->path);
    t->resent++;
  }
  resend_next(t);
}

void emptied(command_job *job, int) {
  upload_tail *t = tail_of(job);
  if (t->emptied)
    t->emptied(t);
  resend_next(t);
}

void empty_spool(upload_tail *t) {
  char cmd[COMMAND_SIZE];
  if (!spool_rm_command(t->spool, cmd) || command_start(&t->job, cmd, COMMAND_LOCAL, emptied) != 0)
    emptied(&t->job, -1);
}

void begin(upload_tail *t) {
  t->job.owner = t;
  t->sent = true;
  t->resent = 0;
}

void uploaded(command_job *job, int wait_status) {
  upload_tail *t = tail_of(job);
  const int status = upload_status(wait_status);
  log_msg_as(t->log_func, DEBUG, "%s :%s\n", t->log_label, t->log_shown);
  t->counters->last_upload_status = status;
  if (status == 0) {
    t->counters->uploads_ok++;
    // Gone at once: a stop before the rm must not keep what was sent.
    unlink(t->path);
  } else {
    t->counters->uploads_failed++;
    t->sent = false;
    const char *slash = strrchr(t->path, '/');
    if (unsent_enabled() && unsent_keep(t->id, t->path) == 0)
      log_msg_as("upload_done", WARN, "upload of %s failed with status %d: kept to be sent again\n",
                 slash ? slash + 1 : t->path, status);
  }
  empty_spool(t);
}

}  // namespace

void upload_send(upload_tail *t, const char *path, const char *func, const char *label,
                 const char *shown) {
  begin(t);
  t->log_func = func;
  t->log_label = label;
  snprintf(t->path, sizeof(t->path), "%s", path);
  snprintf(t->log_shown, sizeof(t->log_shown), "%s", shown);
  char cmd[COMMAND_SIZE];
  if (!spool_upload_command(t->path, t->spool, cmd) ||
      command_start(&t->job, cmd, COMMAND_UPLOAD, uploaded) != 0)
    uploaded(&t->job, -1);
}

void upload_empty(upload_tail *t) {
  begin(t);
  empty_spool(t);
}

void upload_resend(upload_tail *t) {
  begin(t);
  resend_next(t);
}

void upload_end(upload_tail *t) { t->ended(t); }
