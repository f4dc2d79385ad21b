// Error codes and messages, and the call frame every device call follows.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>

#include "device/call_frame.h"
#include "device/context.h"
#include "kalo/kalo.h"

namespace {

// A context as the call frame sees it: magic, lock, reply semaphore.
struct FakeContext {
  std::unique_ptr<KaloContext> ctx = std::make_unique<KaloContext>();
  FakeContext() {
    ctx->magic = kalo::kContextMagic;
    ctx->lock = TR_creer_semaphore_mutex();
    ctx->link.reply_sem = TR_creer_semaphore_synchro();
    ctx->link.connected = 1;
    ctx->link.controller_version = 6.0f;
  }
  ~FakeContext() {
    TR_detruire_semaphore(ctx->lock);
    TR_detruire_semaphore(ctx->link.reply_sem);
  }
  KaloContext *get() { return ctx.get(); }
};

} // namespace

TEST(ErrorMessages, KnownCodesHaveTheirTextAndOthersAreUnknown) {
  EXPECT_STREQ(kaloGetErrorMessage(0), "No error reported");
  EXPECT_STREQ(kaloGetErrorMessage(2), "Communication failure");
  EXPECT_STREQ(kaloGetErrorMessage(3), "Invalid context");
  EXPECT_STREQ(kaloGetErrorMessage(17), "Function called in wrong command mode");
  EXPECT_STREQ(kaloGetErrorMessage(20), "Incompatible version between API and controler");
  EXPECT_STREQ(kaloGetErrorMessage(21), "Incorrect virtual mechanism");
  for (int code : {13, 22, -1, 23, 255, 1 << 20})
    EXPECT_STREQ(kaloGetErrorMessage(code), "Unknown error code") << code;
  int with_text = 0;
  for (const auto &e : _kaloErrorTable)
    with_text += e.message != nullptr;
  EXPECT_EQ(with_text, 21);
}

TEST(ErrorCodes, ContextCodeIsReadAndClearedGlobalCodeIsNot) {
  FakeContext f;
  f.ctx->error_code = 6;
  EXPECT_EQ(kaloGetErrorCode(f.get()), 6);
  EXPECT_EQ(kaloGetErrorCode(f.get()), 0);

  kaloGlobalError = 10;
  EXPECT_EQ(kaloGetErrorCode(nullptr), 10);
  EXPECT_EQ(kaloGetErrorCode(nullptr), 10);

  f.ctx->error_code = 9;
  f.ctx->magic = 0x4B414C4F00000000ull; // only the low half matches
  EXPECT_EQ(kaloGetErrorCode(f.get()), 3);
  EXPECT_EQ(f.ctx->error_code.load(), 9u) << "a dead handle's record is not touched";
}

TEST(CallFrame, ChecksComeInOrderAndErrorsLandWhereTheyBelong) {
  FakeContext f;
  int runs = 0;
  auto ok = [&](KaloContext &) {
    ++runs;
    return 0;
  };

  kaloGlobalError = 0;
  EXPECT_EQ(kalo::locked_call(nullptr, ok), -1);
  EXPECT_EQ(kaloGlobalError, 3);

  f.ctx->magic = 0;
  kaloGlobalError = 0;
  EXPECT_EQ(kalo::locked_call(f.get(), ok), -1);
  EXPECT_EQ(kaloGlobalError, 3);
  EXPECT_EQ(f.ctx->error_code.load(), 0u);
  f.ctx->magic = kalo::kContextMagic;

  f.ctx->link.connected = 0;
  EXPECT_EQ(kalo::locked_call(f.get(), ok), -1);
  EXPECT_EQ(f.ctx->error_code.load(), 2u);
  f.ctx->link.connected = 1;

  EXPECT_EQ(kalo::locked_call(f.get(), [](KaloContext &) { return 9; }), -1);
  EXPECT_EQ(f.ctx->error_code.load(), 9u);
  EXPECT_EQ(f.ctx->lock->depth, 0) << "a failing call released the lock";

  EXPECT_EQ(kalo::locked_call(f.get(), ok), 0);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(f.ctx->error_code.load(), 9u) << "success does not clear an unread error";
}

TEST(CallFrame, VersionGateComesFirstAndReturnsTheBareCode) {
  FakeContext f;
  int runs = 0;
  auto ok = [&](KaloContext &) {
    ++runs;
    return 0;
  };
  f.ctx->link.controller_version = 5.4f; // as a float, 5.4 is just above the double 5.4
  EXPECT_EQ(kalo::gated_call(f.get(), 5.4, ok), 0);
  f.ctx->link.controller_version = 5.3f;
  f.ctx->link.connected = 0; // the gate answers before the connection check
  EXPECT_EQ(kalo::gated_call(f.get(), 5.4, ok), 20);
  EXPECT_EQ(f.ctx->error_code.load(), 0u);
  kaloGlobalError = 0;
  EXPECT_EQ(kalo::gated_call(nullptr, 5.4, ok), -1) << "a null handle never crashes the gate";
  EXPECT_EQ(kaloGlobalError, 3);
  EXPECT_EQ(runs, 1);
}

TEST(CallFrame, QueryPostsTheRequestAndCopiesTheReply) {
  FakeContext f;
  std::memset(&f.ctx->link.command_record, 0, sizeof(ExchangeRecord));
  TR_poster_semaphore(f.ctx->link.reply_sem); // a stale reply from an abandoned query
  std::thread controller([&] {
    for (;;) {
      {
        kalo::ContextLock hold(f.get());
        if (kalo::carries(f.ctx->link.command_record, kalo::Field::request)) {
          EXPECT_EQ(f.ctx->link.command_record.request, 38);
          f.ctx->link.state_record.controller_version[0] = 6;
          break;
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    TR_poster_semaphore(f.ctx->link.reply_sem);
  });
  int major = 0;
  EXPECT_EQ(
      kalo::query_call(f.get(), kalo::Field::controller_version,
                       [&](KaloContext &c) { major = c.link.state_record.controller_version[0]; }),
      0);
  controller.join();
  EXPECT_EQ(major, 6) << "the stale reply answered the new query";
  EXPECT_EQ(f.ctx->link.command_record.send_request, 20u);
}
