#include "Wevl/MsgDesc.h"

#include <vector>

namespace Wevl {

namespace {

// Indexed by id; id 0 is never given out, so a zeroed record names no descriptor.
std::vector<MsgDesc const*>& registry() {
  static std::vector<MsgDesc const*> r(1, nullptr);
  return r;
}

}  // namespace

MsgDesc::MsgDesc(std::string_view module, unsigned level, std::string_view format,
                 std::string_view file, unsigned line)
    : module_(module), format_(format), file_(file), level_(level), line_(line) {
  auto& r = registry();
  id_ = static_cast<uint32_t>(r.size());
  r.push_back(this);
}

MsgDesc::~MsgDesc() { registry()[id_] = nullptr; }

MsgDesc const* MsgDesc::byId(uint32_t id) {
  auto const& r = registry();
  return id < r.size() ? r[id] : nullptr;
}

}  // namespace Wevl
