// Datasets declared as data: one column table per dataset gives both its
// record line and its index template.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "frame/log.h"
#include "output/bcp_dataset.h"

constexpr size_t BCP_LINE_SIZE = 4096;

// A record line under construction in a fixed 4096-byte buffer. A line that
// would not fit, or a value holding a tab or line break (which would shift
// the fields), marks the line bad: such a record is dropped whole rather
// than written cut or misaligned.
class bcp_line {
 public:
  void put(std::string_view text);
  void putf(const char *format, ...) __attribute__((format(printf, 2, 3)));
  // Ends the current field: a tab, or the line feed after the last one.
  void end_field(bool last);
  bool ok() const { return ok_; }
  const char *c_str() const { return buf_; }
  size_t size() const { return len_; }
  int fields() const { return fields_; }

 private:
  char buf_[BCP_LINE_SIZE] = {};
  size_t len_ = 0;
  int fields_ = 0;
  bool ok_ = true;
};

struct bcp_column_text {
  std::string_view key, eng, chn;
};

// Writes one column's value for a record context (each dataset has its own
// context type).
using bcp_value_fn = void (*)(bcp_line &line, const void *ctx);

// One column: its index texts and how its value is written.
struct bcp_column {
  bcp_column_text text;
  bcp_value_fn value;
};

// The differences between datasets' index templates.
struct bcp_template_style {
  int sep_tabs;    // tabs after each column item but the last
  int close_tabs;  // tabs after the last item; the closing runs have one and two fewer
};
constexpr bcp_template_style BCP_STYLE_PLAIN = {7, 6};
constexpr bcp_template_style BCP_STYLE_WIDE_CLOSE = {7, 7};

// The index block template for a column list: the common head with its six
// conversions, then the column description. The text lives as long as the
// process.
const char *bcp_make_template(const bcp_column *cols, size_t count, bcp_template_style style);

// Writes every column's value, each followed by a tab, the last by a line
// feed. False when the line is bad or the field count is off.
bool bcp_build_line(bcp_line &line, const bcp_column *cols, size_t count, const void *ctx);

// Sets up a dataset written by its own 300-s timer: the descriptor with
// the template of its columns, and the timer appended to the scheduler.
void bcp_periodic_dataset_init(bcp_dataset *ds, const char *name, const bcp_column *cols,
                               size_t count, bcp_template_style style, bcp_business_handler handler,
                               report_timer *timer, void (*timer_handler)(void *));

// Builds the dataset's record, logs it under func as
// "<group tag>-<dataset code>:<line>" and appends it by the writing frame.
// 1 when the line is refused or no file could be opened.
int bcp_emit(const char *func, bcp_dataset *ds, const bcp_column *cols, size_t count,
             const void *ctx);
