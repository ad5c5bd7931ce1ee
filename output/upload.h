// The tail of every spool's cycle, shared by the dataset groups and the
// status report: upload the file formed, empty the spool directory, and in
// durable mode send kept files again. Each step is a command run beside
// the loop, started when the one before has ended.
#pragma once

#include <cstdint>

#include "frame/command.h"
#include "output/spool.h"
#include "output/unsent.h"

struct upload_tail {
  // Set by the owner once.
  uint32_t id;
  spool_dir spool;
  upload_counters *counters;
  void *owner;
  void (*emptied)(upload_tail *tail);  // the rm has run (or not): may be null
  void (*ended)(upload_tail *tail);    // the cycle is over
  // The tail's own.
  command_job job;
  char path[UNSENT_PATH_SIZE];  // the file being sent
  const char *log_func, *log_label;
  char log_shown[UNSENT_PATH_SIZE];
  bool sent;  // this cycle's file reached the server, or there was none
  int resent;
};

// Sends the file at path, then logs "<label> :<shown>" at DEBUG under func
// and counts it; in durable mode a failed one is kept (logged). Then the
// spool directory is emptied and kept files follow if it was sent.
void upload_send(upload_tail *tail, const char *path, const char *func, const char *label,
                 const char *shown);
// Empties the spool directory, then sends kept files again.
void upload_empty(upload_tail *tail);
// Sends kept files again: at most UNSENT_RESEND_MAX, oldest first, each
// deleted once sent; the first failure ends the round.
void upload_resend(upload_tail *tail);
// Ends the cycle without further steps.
void upload_end(upload_tail *tail);
