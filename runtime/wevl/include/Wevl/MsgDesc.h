// The static description of one kind of trace message. Records carry only the descriptor's id, so
// the text of the message is written once per dump instead of once per event.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Wevl {

class MsgDesc {
 public:
  // Descriptors normally have static storage (WEVL_PUT declares one per call site). The format
  // follows Format.h.
  MsgDesc(std::string_view module, unsigned level, std::string_view format,
          std::string_view file = {}, unsigned line = 0);
  ~MsgDesc();
  MsgDesc(MsgDesc const&) = delete;
  MsgDesc& operator=(MsgDesc const&) = delete;

  // Unique for the life of the process; ids are not reused after a descriptor is destroyed, so a
  // record can never be decoded with another message's format.
  uint32_t id() const { return id_; }
  std::string const& module() const { return module_; }
  unsigned level() const { return level_; }
  std::string const& format() const { return format_; }
  std::string const& file() const { return file_; }
  unsigned line() const { return line_; }

  // The live descriptor with the id, or nullptr.
  static MsgDesc const* byId(uint32_t id);

 private:
  std::string module_;
  std::string format_;
  std::string file_;
  unsigned level_;
  unsigned line_;
  uint32_t id_;
};

}  // namespace Wevl
