// Datasets declared as data: one column table per dataset gives both its
// record line and its index template.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "frame/log.h"
#include "output/bcp_dataset.h"

constexpr size_t BCP_LINE_SIZE = 4096;

// A record line under construction in a fixed 4096-byte buffer. A line that
// would not fit is refused and its record dropped whole, rather than written
// cut (a cut line would lose its line feed and run into the next record).
// Values are not scanned here: every text that reaches a record is checked
// where it enters the daemon (configuration at load, MACs, tokens and
// status lines on receipt), so none holds a tab or line break.
class bcp_line {
 public:
  bcp_line() { buf_[0] = '\0'; }
  void put(std::string_view text);
  // Numbers in decimal, as "%llu" and "%lld" would print them.
  void put_decimal(unsigned long long value);
  void put_signed(long long value);
  bool ok() const { return ok_; }
  const char *c_str() const { return buf_; }
  size_t size() const { return len_; }

 private:
  // Only the terminator is kept set: clearing all 4096 bytes per record
  // would cost more than building the line.
  char buf_[BCP_LINE_SIZE];
  size_t len_ = 0;
  bool ok_ = true;
};

struct bcp_column_text {
  std::string_view key, eng, chn;
};

// Writes a value that depends only on the configuration and constants.
using bcp_fixed_fn = void (*)(bcp_line &line);
// Writes one record's value from its context (each dataset has its own
// context type).
using bcp_value_fn = void (*)(bcp_line &line, const void *ctx);

// One column: its index texts and how its value is written, either fixed
// for the run or taken from each record.
struct bcp_column {
  constexpr bcp_column() : text{}, fixed(nullptr), value(nullptr) {}
  constexpr bcp_column(bcp_column_text t, bcp_fixed_fn f) : text(t), fixed(f), value(nullptr) {}
  constexpr bcp_column(bcp_column_text t, bcp_value_fn v) : text(t), fixed(nullptr), value(v) {}
  bcp_column_text text;
  bcp_fixed_fn fixed;
  bcp_value_fn value;
};

// Joins column lists (arrays) into one table at compile time, for datasets
// that share runs of columns.
template <typename... Lists>
constexpr auto bcp_join(const Lists &...lists) {
  std::array<bcp_column, (std::extent_v<Lists> + ...)> table{};
  size_t k = 0;
  auto append = [&table, &k](const auto &list) {
    for (const bcp_column &c : list)
      table[k++] = c;
  };
  (append(lists), ...);
  return table;
}

// A dataset's line with its fixed columns written once: runs of fixed text
// (separators included) between the per-record columns. Rebuilt when the
// configuration is loaded again.
struct bcp_line_plan {
  struct piece {
    uint32_t offset;  // run of fixed text: where in text, how long
    uint32_t length;
    int column;  // or a per-record column (run fields unused), -1 for a run
  };
  unsigned generation = 0;
  bool fits = true;  // false when a fixed value alone overflows a line
  std::string text;
  std::vector<piece> pieces;
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
// feed, through the plan of the columns (made on first use). False when the
// line does not fit.
bool bcp_build_line(bcp_line &line, bcp_line_plan &plan, const bcp_column *cols, size_t count,
                    const void *ctx);

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

// The same taking a column table (array) whole.
template <typename Table>
const char *bcp_make_template(const Table &cols, bcp_template_style style) {
  return bcp_make_template(std::data(cols), std::size(cols), style);
}
template <typename Table>
int bcp_emit(const char *func, bcp_dataset *ds, const Table &cols, const void *ctx) {
  return bcp_emit(func, ds, std::data(cols), std::size(cols), ctx);
}
template <typename Table>
void bcp_periodic_dataset_init(bcp_dataset *ds, const char *name, const Table &cols,
                               bcp_template_style style, bcp_business_handler handler,
                               report_timer *timer, void (*timer_handler)(void *)) {
  bcp_periodic_dataset_init(ds, name, std::data(cols), std::size(cols), style, handler, timer,
                            timer_handler);
}
