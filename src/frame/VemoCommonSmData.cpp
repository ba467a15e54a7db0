#include "Vemo/VemoCommon.h"
#include "Zol/Assert.h"

ZOL_TRACE_MODULE("VemoCommon")

namespace Vemo {

void vemoAssert(Zol::String const& message, std::source_location where) {
  // Reported against the frame's header, as every SM's assertions are.
  Zol::assertFail(message.c_str(), "src-includes/Vemo/VemoCommon", 15, where.function_name());
}

Zol::Ptr<VemoCommonSmData> vemoCommonSmDataFactory(Zol::Name const& name, Zol::ActivityLoop& loop) {
  Zol::Ptr<VemoCommonSmData> const data = Zol::make<VemoCommonSmData>(name);
  data->loopIs(loop);
  return data;
}

Zol::Ptr<VemoCommonSmData> vemoCommonSmDataFactory(Zol::Name const& name) {
  return vemoCommonSmDataFactory(name, Zol::ActivityLoop::current());
}

void VemoCommonSmData::zolConstructed() {}

Zol::ActivityLoop& VemoCommonSmData::loop() const {
  if (!loop_) vemoAssert("the common data's activity loop was never set");
  return *loop_;
}

// The verification SM's clock needs the loop, so the common data initializes once it has one.
void VemoCommonSmData::loopIs(Zol::ActivityLoop& loop) {
  if (loop_) vemoAssert("the common data's activity loop is set once");
  loop_ = &loop;
  handleInitialized();
}

void VemoCommonSmData::handleInitialized() {
  ZOL_TRACE(9, "void Vemo::VemoCommonSmData::handleInitialized()");
  Zol::Ptr<VerifyData> const verify = verifyDataIs("verify");
  verify->verifyIs("vr", 0);
  verifySmIs(Zol::make<VerifySm>(verify, loop()));
  initializedIs(true);
}

void VemoCommonSmData::zolDestroyed() {
  verifySmIs(nullptr);
  verifyDataDel();
}

void VemoCommonSmData::freeMirrorSessionEnq(Zol::U8 id) {
  FreeMirrorSessionMetadata meta = freeMirrorSessionMetadata();
  freeMirrorSessionIs(meta.next(), id);
  meta.nextIs(meta.next() + 1);
  freeMirrorSessionMetadataIs(meta);
}

Zol::U8 VemoCommonSmData::freeMirrorSessionDeq() {
  FreeMirrorSessionMetadata meta = freeMirrorSessionMetadata();
  // Sequence numbers wrap; head == next is the empty queue.
  if (meta.head() == meta.next()) return 0;
  Zol::U8 const id = freeMirrorSession(meta.head());
  freeMirrorSessionDel(meta.head());
  meta.headIs(meta.head() + 1);
  freeMirrorSessionMetadataIs(meta);
  return id;
}

void VemoBaseHelper::nameIsFromBackup(Zol::Name const& name) { backupName_ = name; }

void VemoAsyncBaseHelper::zolConstructed() {
  // Stamped with the time of the loop the creating thread runs, which is the agent's.
  asyncOperationResultIs(AsyncOperationResult("", Zol::ActivityLoop::current().now()));
}

Zol::U32 VemoAsyncBaseHelper::nextPriority() {
  if (!(priority() > 0)) Vemo::vemoAssert("priority() > 0");
  priorityIs(priority() - 1);
  return priority();
}

}  // namespace Vemo
