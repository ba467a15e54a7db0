// Reactors that hand each notification to their SM. Every SM's reactors live in its private header
// src/<feature>/<Sm>Reactors.h as nested classes of the SM (so they may call its private
// handlers), one line per handled attribute:
//
//   class LagSm::MlagReactor : public SmReactor<Mlag::Status::NotifieeConst, LagSm> {
//    public:
//     using SmReactor::SmReactor;
//     void onState() override { sm().handleMlagState(); }
//   };
#pragma once

#include <utility>

namespace Vemo {

template <class Notifiee, class Sm>
class SmReactor : public Notifiee {
 public:
  explicit SmReactor(Sm* sm) : sm_(sm) {}

 protected:
  Sm& sm() const { return *sm_; }

 private:
  Sm* sm_;
};

// A reactor that serves one key of its SM (a sub-interface, a port-channel).
template <class Notifiee, class Sm, class Key>
class SmKeyReactor : public SmReactor<Notifiee, Sm> {
 public:
  SmKeyReactor(Sm* sm, Key key) : SmReactor<Notifiee, Sm>(sm), key_(std::move(key)) {}

 protected:
  Key const& key() const { return key_; }

 private:
  Key key_;
};

}  // namespace Vemo
