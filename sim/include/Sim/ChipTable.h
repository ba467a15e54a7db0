// What every table of the simulated chip shares: the answer an operation gets, fault injection,
// a capacity, the counts of what was asked and what changed, the log of refusals, and the stage
// a table adds to the packet path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

struct Packet;
struct ClassifyResult;

// The chip's tables; each new one is appended and gets a name in tableName.
enum class Table : uint8_t { lag, acl, rangeChecker, mac, vxlan };
inline constexpr size_t kTableCount = 5;

// What the chip answers to one table operation.
enum class Status : uint8_t {
  ok,
  busy,    // try again later
  full,    // no room for another entry
  failed,  // the request itself is wrong; the same request fails again
};

std::string_view tableName(Table t);
std::optional<Table> tableFromName(std::string_view name);
std::string_view statusText(Status s);
std::optional<Status> statusFromText(std::string_view text);
std::ostream& operator<<(std::ostream& os, Status s);

// What was asked of a table and what changed it: every write operation counts, refused or not,
// and a write is one that changed what the table holds (a port-channel created again, a binding
// set to what it was, are operations but no writes). Reading and packets count nothing.
struct Counters {
  uint64_t writes = 0;
  uint64_t operations = 0;
};

// Every refused operation of the chip, oldest first, as "lag create Port-Channel3: full"; only
// the last limit are kept.
class ErrorLog {
 public:
  static constexpr size_t limit = 1024;
  void add(std::string line);
  std::vector<std::string> const& lines() const { return lines_; }
  void clear() { lines_.clear(); }

 private:
  std::vector<std::string> lines_;
};

// One table's admission. Every operation that can be refused asks admit first and is counted;
// operations that are never refused count through operated. The table's own code says what
// changed through wrote, and logs anything but ok through refuse, so that the text is built
// only for refusals.
class ChipTable {
 public:
  ChipTable(Table id, size_t capacity, ErrorLog& errors)
      : id_(id), capacity_(capacity), errors_(errors) {}
  ChipTable(ChipTable const&) = delete;
  ChipTable& operator=(ChipTable const&) = delete;

  Table id() const { return id_; }
  // The next count operations answer kind; ok clears what is pending.
  void faultIs(Status kind, uint32_t count) {
    faultKind_ = kind;
    faultCount_ = kind == Status::ok ? 0 : count;
  }
  uint32_t faultPending() const { return faultCount_; }
  void capacityIs(size_t capacity) { capacity_ = capacity; }
  size_t capacity() const { return capacity_; }
  Counters counters() const { return counters_; }

  // A pending fault is consumed first; then an operation that adds an entry to the size entries
  // held must fit.
  Status admit(bool adds, size_t size);
  void operated() { ++counters_.operations; }
  // Returns changed, for the caller's flow.
  bool wrote(bool changed = true) {
    if (changed) ++counters_.writes;
    return changed;
  }
  // Logs "TABLE what: status[, why]" and returns s.
  Status refuse(std::string_view what, Status s, std::string_view why = {});

 private:
  Table const id_;
  size_t capacity_;
  ErrorLog& errors_;
  Status faultKind_ = Status::ok;
  uint32_t faultCount_ = 0;
  Counters counters_;
};

// One stage of the chip's packet path, owned by the table it reads. The chip runs the stages in
// path order; the first that decides the packet's fate ends the path.
class PacketStage {
 public:
  virtual ~PacketStage() = default;
  // True when the fate is decided here; result then holds it. A stage that lets the packet go
  // on may still note what it did in result.
  virtual bool process(Packet const& p, ClassifyResult& result) = 0;
};

}  // namespace sim
