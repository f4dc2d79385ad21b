// A connected context without a network, for the readout, virtual-mechanism
// and joint-space calls: the test plays the exchange thread by writing the
// state record and posting the semaphores itself.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

#include "device/call_frame.h"
#include "device/context.h"
#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"

namespace readout_test {

// The identifiers a record has marked, in order, comma-separated.
inline std::string marked(const ExchangeRecord &r) {
  std::string ids;
  for (int id = 1; id <= kalo::kFieldCount; ++id)
    if (r.field_changed[id] != 0)
      ids += (ids.empty() ? "" : ",") + std::to_string(id);
  return ids;
}

struct FakeContext {
  std::unique_ptr<KaloContext> ctx = std::make_unique<KaloContext>();
  std::unique_ptr<float[][7]> samples = std::make_unique<float[][7]>(kalo::kTrajSampleRoom);

  FakeContext() {
    KaloContext &c = *ctx;
    c.magic = kalo::kContextMagic;
    c.lifetime.holders = 1; // the test's, as kaloOpen gives the application's
    c.lock = TR_creer_semaphore_mutex();
    c.link.reply_sem = TR_creer_semaphore_synchro();
    c.link.traj_sample_sem = TR_creer_semaphore_synchro();
    c.link.button_sem = TR_creer_semaphore_synchro();
    c.link.upper_bound_sem = TR_creer_semaphore_synchro();
    c.link.connected = 1;
    c.link.controller_version = 6.0f;
    c.link.control_point_count = 1;
    c.link.axis_count = 6;
    c.vm.vm_default_mode_copy = -1;
    c.link.state_record.traj_samples = samples.get();
    c.params.output_stream = std::tmpfile();
  }
  ~FakeContext() {
    KaloContext &c = *ctx;
    for (TR_SEMAPHORE *s : {c.lock, c.link.reply_sem, c.link.traj_sample_sem, c.link.button_sem,
                            c.link.upper_bound_sem})
      TR_detruire_semaphore(s);
    if (c.params.output_stream != nullptr)
      std::fclose(c.params.output_stream);
  }
  FakeContext(const FakeContext &) = delete;
  FakeContext &operator=(const FakeContext &) = delete;

  KaloContext *get() { return ctx.get(); }
  KaloContext *operator->() { return ctx.get(); }

  // Everything written to the output stream so far.
  std::string output() {
    FILE *f = ctx->params.output_stream;
    std::fflush(f);
    const long end = std::ftell(f);
    std::string text(static_cast<size_t>(end), '\0');
    std::rewind(f);
    const size_t got = std::fread(text.data(), 1, text.size(), f);
    text.resize(got);
    std::fseek(f, 0, SEEK_END);
    return text;
  }

  // The identifiers marked for the next command frame.
  std::string posted() const { return marked(ctx->link.command_record); }
  void clear_posted() { kalo::clear_changes(ctx->link.command_record); }
};

} // namespace readout_test
