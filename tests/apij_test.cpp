// The API job handler in one thread: ids, cookies, references, completion
// with callbacks, delayed unregistering, polls and the one real timed wait,
// instance validation and allocation failures.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "loreg/apij.h"
#include "support/apij_fixture.h"

namespace {

using Lines = std::vector<std::string>;

std::string Fmt(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string Fmt(const char *format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  return buffer;
}

// What a callback saw, and what it does while it runs.
struct CbProbe {
  int calls = 0;
  apij_inst *inst = nullptr;
  apij_job_ref ref{};
  void *cookie = nullptr;
  std::function<void(apij_inst *, apij_job_ref *)> body;
};

// Callback whose cookie is the CbProbe itself (callback cookie size 0).
int ProbeCallback(apij_inst *inst, apij_job_ref *ref, void *cookie) {
  auto *probe = static_cast<CbProbe *>(cookie);
  probe->calls++;
  probe->inst = inst;
  probe->ref = *ref;
  probe->cookie = cookie;
  if (probe->body) probe->body(inst, ref);
  return 12345;  // ignored by the handler
}

// Callback that records only the cookie it was given, for copied cookies.
std::vector<unsigned char> g_seen_cookie;
int CookieCallback(apij_inst *, apij_job_ref *, void *cookie) {
  const auto *bytes = static_cast<const unsigned char *>(cookie);
  g_seen_cookie.assign(bytes, bytes + 6);
  return 0;
}

// Reads the byte count out of a line "<prefix><n><suffix>".
long BytesIn(const std::string &line, const std::string &prefix) {
  if (line.compare(0, prefix.size(), prefix) != 0) return -1;
  return std::strtol(line.c_str() + prefix.size(), nullptr, 10);
}

class ApijTest : public testsupport::ApijFixture {};

// ---------------------------------------------------------------------------
// Instance

TEST_F(ApijTest, NullConfigUsesMallocAndStoresTheCookiePointer) {
  int marker = 0;
  apij_inst *plain = apij_InstCreate(nullptr, &marker);
  ASSERT_NE(plain, nullptr);
  EXPECT_EQ(apij_InstCookie(plain), &marker);
  // Jobs of a null configuration keep the caller's pointer as cookie.
  apij_job_ref ref;
  EXPECT_EQ(apij_JobCreate(plain, &marker, -1, 0, &ref), 1);
  EXPECT_EQ(ref.cookie, &marker);
  EXPECT_EQ(apij_JobRefRelease(plain, &ref), 0);
  log.clear();
  EXPECT_EQ(apij_InstDestroy(plain), 0);
  EXPECT_EQ(log.texts(), (Lines{"_apij_jobnode_destroy_nolock(1)\n", "apij_InstDestroy(): 1 jobs deleted.\n",
                                "apij_InstDestroy(): 0 callback subscriptions deleted.\n"}));
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST_F(ApijTest, InstanceCookieIsCopiedWhenSized) {
  char text[8] = "abcdefg";
  Make(0, 0, 8, text);
  auto *cookie = static_cast<char *>(apij_InstCookie(inst));
  ASSERT_NE(cookie, nullptr);
  EXPECT_NE(cookie, text);
  EXPECT_EQ(std::memcmp(cookie, "abcdefg", 8), 0);
  text[0] = 'X';  // the copy does not follow the caller's bytes
  EXPECT_EQ(cookie[0], 'a');
  EXPECT_EQ(alloc.live_blocks(), 1u);  // record and cookie in one block
}

TEST_F(ApijTest, InstanceCookieIsZeroedWithoutCallerBytes) {
  Make(0, 0, 16, nullptr);
  auto *cookie = static_cast<unsigned char *>(apij_InstCookie(inst));
  ASSERT_NE(cookie, nullptr);
  for (int i = 0; i < 16; i++) EXPECT_EQ(cookie[i], 0) << i;
}

TEST_F(ApijTest, InstanceCookieWithoutSizeIsThePointer) {
  int marker = 0;
  Make(0, 0, 0, &marker);
  EXPECT_EQ(apij_InstCookie(inst), &marker);
}

TEST_F(ApijTest, NullInstanceIsRefusedEverywhere) {
  apij_job_ref ref{};
  ref.magic = APIJ_JOB_REF_MAGIC;
  ref.id = 1;
  int32_t result = 1;
  EXPECT_EQ(apij_InstDestroy(nullptr), -22);
  EXPECT_EQ(apij_JobCreate(nullptr, nullptr, -1, 0, nullptr), -22);
  EXPECT_EQ(apij_JobDestroy(nullptr, 1), -22);
  EXPECT_EQ(apij_JobDone(nullptr, 1, 0), -22);
  EXPECT_EQ(apij_JobAssignTmrId(nullptr, 1, 5), -22);
  EXPECT_EQ(apij_JobRefGet(nullptr, 1, nullptr), -22);
  EXPECT_EQ(apij_JobRefGetTmr(nullptr, 5, nullptr), -22);
  EXPECT_EQ(apij_JobIsDone(nullptr, 1), -22);
  EXPECT_EQ(apij_JobRefRelease(nullptr, &ref), -22);
  EXPECT_EQ(ref.magic, APIJ_JOB_REF_MAGIC);  // not released
  EXPECT_EQ(apij_CbRegister(nullptr, ProbeCallback, nullptr), -22);
  EXPECT_EQ(apij_CbUnregister(nullptr, 1, 0), -22);
  EXPECT_EQ(apij_JobResultGet(nullptr, 1, &result, 1), -22);
  EXPECT_EQ(result, -14);
  EXPECT_EQ(log.texts(), (Lines{
                             "apij_InstDestroy(NULL): need context pointer\n",
                             "apij_JobCreate(NULL): need context pointer\n",
                             "apij_JobDestroy(NULL): need context pointer\n",
                             "apij_JobDone(NULL): need context pointer\n",
                             "apij_JobAssignTmrId(NULL): need context pointer\n",
                             "apij_JobRefGet(NULL): need context pointer\n",
                             "apij_JobRefGetTmr(NULL): need context pointer\n",
                             "apij_JobIsDone(NULL): need context pointer\n",
                             "apij_JobRefRelease(NULL): need context pointer\n",
                             "apij_CbRegister(NULL): need context pointer\n",
                             "apij_CbUnregister(NULL): need context pointer\n",
                             "apij_JobResultGet(NULL): need context pointer\n",
                             "apij_JobResultGet(1): Waiting failed witch code -22\n",
                         }));
  log.clear();
  EXPECT_EQ(apij_InstCookie(nullptr), nullptr);
  EXPECT_EQ(log.texts(), (Lines{"apij_InstCookie(NULL): invalid context pointer\n"}));
}

TEST_F(ApijTest, InstanceWithoutMagicIsRefused) {
  // Zeroed memory stands for a record that is not (or no longer) an
  // instance: its magic does not match.
  alignas(64) static unsigned char fake[1024];
  std::memset(fake, 0, sizeof(fake));
  auto *bad = reinterpret_cast<apij_inst *>(fake);
  const std::string ptr = Fmt("%p", static_cast<void *>(bad));
  int32_t result = 1;
  EXPECT_EQ(apij_JobCreate(bad, nullptr, -1, 0, nullptr), -22);
  EXPECT_EQ(apij_JobDone(bad, 1, 0), -22);
  EXPECT_EQ(apij_CbRegister(bad, ProbeCallback, nullptr), -22);
  EXPECT_EQ(apij_InstDestroy(bad), -22);
  EXPECT_EQ(apij_JobResultGet(bad, 3, &result, 2), -22);
  EXPECT_EQ(result, -14);
  EXPECT_EQ(log.texts(), (Lines{
                             "apij_JobCreate(" + ptr + "): invalid context\n",
                             "apij_JobDone(" + ptr + "): invalid context\n",
                             "apij_CbRegister(" + ptr + "): invalid context\n",
                             "apij_InstDestroy(" + ptr + "): invalid context\n",
                             "apij_JobResultGet(" + ptr + "): invalid context\n",
                             "apij_JobResultGet(3): Waiting failed witch code -22\n",
                         }));
  log.clear();
  EXPECT_EQ(apij_InstCookie(bad), nullptr);
  EXPECT_EQ(log.texts(), (Lines{"apij_InstCookie(NULL): invalid context pointer\n"}));
}

TEST_F(ApijTest, LinesCarryTheModuleNumberAndLevels) {
  Make();
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  EXPECT_EQ(apij_JobDone(inst, 1, 3), 0);
  EXPECT_EQ(apij_JobDone(inst, 1, 3), -114);
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  for (const auto &line : lines) {
    EXPECT_EQ(line.channel, 0x6Bu);
    EXPECT_EQ(line.module, 0xC001u);
  }
  EXPECT_EQ(lines[0].level, 4000u);
  EXPECT_EQ(lines[1].level, 3000u);
}

TEST_F(ApijTest, DestroyReportsJobsReferencesAndCallbacksFromTheTail) {
  Make();
  apij_job_ref ref;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, nullptr), 2);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, &ref), 3);
  ASSERT_EQ(apij_JobRefGet(inst, 3, &ref), 3);  // a second count
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, nullptr), 4);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 5);
  log.clear();
  EXPECT_EQ(apij_InstDestroy(inst), 0);
  inst = nullptr;
  EXPECT_EQ(log.texts(), (Lines{
                             "_apij_jobnode_destroy_nolock(5)\n",
                             "_apij_jobnode_destroy_nolock(3)\n",
                             "_apij_jobnode_destroy_nolock(1)\n",
                             "apij_InstDestroy(): 3 jobs with 2 outstanding references deleted.\n",
                             "apij_InstDestroy(): 2 callback subscriptions deleted.\n",
                         }));
  auto lines = log.lines();
  EXPECT_EQ(lines[3].level, 2000u);  // references left behind: a warning
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

// ---------------------------------------------------------------------------
// Ids and cookies

TEST_F(ApijTest, JobsAndCallbacksShareOneIdSequence) {
  Make();
  EXPECT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  EXPECT_EQ(apij_CbRegister(inst, ProbeCallback, nullptr), 2);
  EXPECT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 3);
  EXPECT_EQ(apij_CbRegister(inst, ProbeCallback, nullptr), 4);
  EXPECT_EQ(log.texts(), (Lines{"apij_CbRegister() callback id 2 registered.\n",
                                "apij_CbRegister() callback id 4 registered.\n"}));
  // Ids are never reused, also after destruction.
  EXPECT_EQ(apij_JobDestroy(inst, 3), 0);
  EXPECT_EQ(apij_CbUnregister(inst, 4, 0), 0);
  EXPECT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 5);
  EXPECT_EQ(apij_CbRegister(inst, ProbeCallback, nullptr), 6);
}

TEST_F(ApijTest, JobCreateFillsTheReference) {
  Make();
  int marker = 0;
  apij_job_ref ref;
  std::memset(&ref, 0xAB, sizeof(ref));
  ASSERT_EQ(apij_JobCreate(inst, &marker, 77, 9, &ref), 1);
  EXPECT_EQ(ref.id, 1);
  EXPECT_EQ(ref.cookie, &marker);
  EXPECT_EQ(ref.tmrId, 77);
  EXPECT_EQ(ref.callbackId, 9);
  EXPECT_EQ(ref.result, -110);
  EXPECT_EQ(ref.done, 0);
  EXPECT_EQ(ref.magic, 0x726A);
  EXPECT_EQ(ref.inst, inst);
  // The reference owns one count.
  EXPECT_EQ(apij_JobRefRelease(inst, &ref), 0);
  EXPECT_EQ(ref.magic, 0);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobRefRelease_nolock(1), refcount=0\n"}));
  // A released count of a job that is not deleted frees nothing.
  EXPECT_EQ(apij_JobRefGet(inst, 1, nullptr), 1);
}

TEST_F(ApijTest, JobCookieIsCopiedOrZeroedWhenSized) {
  Make(6);
  const char bytes[6] = {'c', 'o', 'o', 'k', 'i', 'e'};
  apij_job_ref a;
  apij_job_ref b;
  ASSERT_EQ(apij_JobCreate(inst, const_cast<char *>(bytes), -1, 0, &a), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, &b), 2);
  ASSERT_NE(a.cookie, nullptr);
  EXPECT_NE(a.cookie, static_cast<const void *>(bytes));
  EXPECT_EQ(std::memcmp(a.cookie, bytes, 6), 0);
  ASSERT_NE(b.cookie, nullptr);
  EXPECT_EQ(std::memcmp(b.cookie, "\0\0\0\0\0\0", 6), 0);
  // A later reference points at the same storage, which the job owns.
  apij_job_ref again;
  ASSERT_EQ(apij_JobRefGet(inst, 1, &again), 1);
  EXPECT_EQ(again.cookie, a.cookie);
  static_cast<char *>(a.cookie)[0] = 'C';
  EXPECT_EQ(static_cast<char *>(again.cookie)[0], 'C');
  EXPECT_EQ(alloc.live_blocks(), 3u);  // instance and two jobs, cookies inside
  EXPECT_EQ(apij_JobRefRelease(inst, &a), 0);
  EXPECT_EQ(apij_JobRefRelease(inst, &b), 0);
  EXPECT_EQ(apij_JobRefRelease(inst, &again), 0);
}

TEST_F(ApijTest, CallbackCookieIsCopiedZeroedOrThePointer) {
  Make(0, 6);
  const char bytes[6] = {'a', 'b', 'c', 'd', 'e', 'f'};
  int copied = apij_CbRegister(inst, CookieCallback, const_cast<char *>(bytes));
  int zeroed = apij_CbRegister(inst, CookieCallback, nullptr);
  ASSERT_EQ(copied, 1);
  ASSERT_EQ(zeroed, 2);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, copied, nullptr), 3);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, zeroed, nullptr), 4);
  g_seen_cookie.clear();
  EXPECT_EQ(apij_JobDone(inst, 3, 0), 0);
  EXPECT_EQ(g_seen_cookie, (std::vector<unsigned char>{'a', 'b', 'c', 'd', 'e', 'f'}));
  g_seen_cookie.clear();
  EXPECT_EQ(apij_JobDone(inst, 4, 0), 0);
  EXPECT_EQ(g_seen_cookie, (std::vector<unsigned char>(6, 0)));
  EXPECT_EQ(alloc.live_blocks(), 5u);  // one block per record
}

TEST_F(ApijTest, CallbackGetsInstanceReferenceAndCookiePointer) {
  Make(4);
  CbProbe probe;
  int cb = apij_CbRegister(inst, ProbeCallback, &probe);
  ASSERT_EQ(cb, 1);
  ASSERT_EQ(apij_JobCreate(inst, const_cast<char *>("abc"), 31, cb, nullptr), 2);
  log.clear();
  EXPECT_EQ(apij_JobDone(inst, 2, -5), 0);  // the callback's 12345 is ignored
  EXPECT_EQ(probe.calls, 1);
  EXPECT_EQ(probe.inst, inst);
  EXPECT_EQ(probe.cookie, &probe);
  EXPECT_EQ(probe.ref.id, 2);
  EXPECT_EQ(probe.ref.tmrId, 31);
  EXPECT_EQ(probe.ref.callbackId, cb);
  EXPECT_EQ(probe.ref.result, -5);
  EXPECT_EQ(probe.ref.done, 1);
  EXPECT_EQ(probe.ref.magic, 0x726A);
  EXPECT_EQ(probe.ref.inst, inst);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDone_nolock(2), result=-5\n",
                                "_apij_JobRefRelease_nolock(2), refcount=0\n"}));
  // The job stays, done, for its owner to collect.
  int32_t result = 0;
  EXPECT_EQ(apij_JobResultGet(inst, 2, &result, 0), 0);
  EXPECT_EQ(result, -5);
}

// ---------------------------------------------------------------------------
// Completion

TEST_F(ApijTest, SecondJobDoneIsRefusedAndTheFirstResultStands) {
  Make();
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  EXPECT_EQ(apij_JobDone(inst, 1, 17), 0);
  EXPECT_EQ(apij_JobDone(inst, 1, 18), -114);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDone_nolock(1), result=17\n",
                                "_apij_JobDone_nolock(): job id 1 alredy done.\n"}));
  apij_job_ref ref;
  ASSERT_EQ(apij_JobRefGet(inst, 1, &ref), 1);
  EXPECT_EQ(ref.result, 17);
  EXPECT_EQ(ref.done, 1);
  EXPECT_EQ(apij_JobRefRelease(inst, &ref), 0);
  int32_t result = 0;
  EXPECT_EQ(apij_JobResultGet(inst, 1, &result, 0), 0);
  EXPECT_EQ(result, 17);
}

TEST_F(ApijTest, JobDoneOnUnknownDeletedAndDoneDeletedJobs) {
  Make();
  apij_job_ref open;
  apij_job_ref done;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, &open), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, &done), 2);
  ASSERT_EQ(apij_JobDone(inst, 2, 4), 0);
  ASSERT_EQ(apij_JobDestroy(inst, 1), 0);  // held: deleted, not freed
  ASSERT_EQ(apij_JobDestroy(inst, 2), 0);
  log.clear();
  EXPECT_EQ(apij_JobDone(inst, 99, 0), -2);
  EXPECT_EQ(apij_JobDone(inst, 1, 0), -2);
  EXPECT_EQ(apij_JobDone(inst, 2, 0), -114);  // done is tested before deleted
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDone_nolock(): unknown job id 99.\n",
                                "_apij_JobDone_nolock(): job id 1 is marked for deletion.\n",
                                "_apij_JobDone_nolock(): job id 2 alredy done.\n"}));
  EXPECT_EQ(apij_JobRefRelease(inst, &open), 0);
  EXPECT_EQ(apij_JobRefRelease(inst, &done), 0);
}

TEST_F(ApijTest, IsDoneTellsOpenDoneAndUnknownJobsApartWithoutAReference) {
  Make();
  apij_job_ref held;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, &held), 2);
  EXPECT_EQ(apij_JobIsDone(inst, 1), 0);
  ASSERT_EQ(apij_JobDone(inst, 1, 5), 0);
  EXPECT_EQ(apij_JobIsDone(inst, 1), 1);
  EXPECT_EQ(apij_JobIsDone(inst, 99), -2);
  // A deleted job still held by a reference is unknown too.
  ASSERT_EQ(apij_JobDestroy(inst, 2), 0);
  EXPECT_EQ(apij_JobIsDone(inst, 2), -2);
  EXPECT_EQ(apij_JobRefRelease(inst, &held), 0);
  // No count was taken: the job goes with its destroy.
  EXPECT_EQ(apij_JobDestroy(inst, 1), 0);
  EXPECT_EQ(alloc.live_blocks(), 1u);
}

TEST_F(ApijTest, ReferenceIsASnapshot) {
  Make();
  apij_job_ref ref;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, 3, 0, &ref), 1);
  ASSERT_EQ(apij_JobAssignTmrId(inst, 1, 8), 0);
  ASSERT_EQ(apij_JobDone(inst, 1, 6), 0);
  EXPECT_EQ(ref.result, -110);
  EXPECT_EQ(ref.done, 0);
  EXPECT_EQ(ref.tmrId, 3);
  apij_job_ref later;
  ASSERT_EQ(apij_JobRefGet(inst, 1, &later), 1);
  EXPECT_EQ(later.result, 6);
  EXPECT_EQ(later.done, 1);
  EXPECT_EQ(later.tmrId, 8);
  EXPECT_EQ(apij_JobRefRelease(inst, &ref), 0);
  EXPECT_EQ(apij_JobRefRelease(inst, &later), 0);
}

TEST_F(ApijTest, JobDestroyFreesAJobWithoutReferencesAtOnce) {
  Make();
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  EXPECT_EQ(alloc.live_blocks(), 2u);
  EXPECT_EQ(apij_JobDestroy(inst, 1), 0);
  EXPECT_EQ(alloc.live_blocks(), 1u);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDestroy_node_nolock(1), refcount=0\n",
                                "_apij_jobnode_destroy_nolock(1)\n"}));
  log.clear();
  EXPECT_EQ(apij_JobDestroy(inst, 1), -2);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDestroy_nolock(): unknown job id 1.\n"}));
}

TEST_F(ApijTest, HeldJobIsHiddenAfterDestroyAndFreedByTheLastRelease) {
  Make();
  apij_job_ref first;
  apij_job_ref second;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, 40, 0, &first), 1);
  ASSERT_EQ(apij_JobRefGet(inst, 1, &second), 1);
  log.clear();
  EXPECT_EQ(apij_JobDestroy(inst, 1), 0);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDestroy_node_nolock(1), refcount=2\n"}));
  EXPECT_EQ(alloc.live_blocks(), 2u);
  apij_job_ref probe;
  std::memset(&probe, 0xAB, sizeof(probe));
  EXPECT_EQ(apij_JobRefGet(inst, 1, &probe), -2);
  EXPECT_EQ(probe.magic, 0);  // a failed lookup leaves no usable reference
  EXPECT_EQ(apij_JobRefGet(inst, 1, nullptr), -2);
  EXPECT_EQ(apij_JobRefGetTmr(inst, 40, nullptr), -2);
  EXPECT_EQ(apij_JobAssignTmrId(inst, 1, 41), -2);
  // A destroy of a deleted job finds it again and changes nothing else.
  log.clear();
  EXPECT_EQ(apij_JobDestroy(inst, 1), 0);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDestroy_node_nolock(1), refcount=2\n"}));
  log.clear();
  EXPECT_EQ(apij_JobRefRelease(inst, &first), 0);
  EXPECT_EQ(alloc.live_blocks(), 2u);
  EXPECT_EQ(apij_JobRefRelease(inst, &second), 0);
  EXPECT_EQ(alloc.live_blocks(), 1u);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobRefRelease_nolock(1), refcount=1\n",
                                "_apij_JobRefRelease_nolock(1), refcount=0\n",
                                "_apij_jobnode_destroy_nolock(1)\n"}));
}

// ---------------------------------------------------------------------------
// References

TEST_F(ApijTest, SecondReleaseOfTheSameReferenceIsRefused) {
  Make();
  apij_job_ref a;
  apij_job_ref b;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, &a), 1);
  ASSERT_EQ(apij_JobRefGet(inst, 1, &b), 1);
  log.clear();
  EXPECT_EQ(apij_JobRefRelease(inst, &a), 0);
  EXPECT_EQ(apij_JobRefRelease(inst, &a), -22);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobRefRelease_nolock(1), refcount=1\n",
                                "apij_JobRefRelease(): invalid job reference given.\n"}));
  // The count was not touched by the refused release: b still pins the job.
  log.clear();
  EXPECT_EQ(apij_JobDestroy(inst, 1), 0);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDestroy_node_nolock(1), refcount=1\n"}));
  EXPECT_EQ(alloc.live_blocks(), 2u);
  EXPECT_EQ(apij_JobRefRelease(inst, &b), 0);
  EXPECT_EQ(alloc.live_blocks(), 1u);
}

TEST_F(ApijTest, ReleaseChecksTheReferenceBeforeTheInstance) {
  Make();
  apij_job_ref bogus{};
  bogus.magic = 0x1234;
  EXPECT_EQ(apij_JobRefRelease(nullptr, nullptr), -22);
  EXPECT_EQ(apij_JobRefRelease(nullptr, &bogus), -22);
  EXPECT_EQ(apij_JobRefRelease(inst, &bogus), -22);
  EXPECT_EQ(log.texts(), (Lines{"apij_JobRefRelease(): invalid job reference given.\n",
                                "apij_JobRefRelease(): invalid job reference given.\n",
                                "apij_JobRefRelease(): invalid job reference given.\n"}));
}

TEST_F(ApijTest, ReleaseOfAnUnknownJobClearsTheMagic) {
  Make();
  apij_job_ref ref{};
  ref.id = 55;
  ref.magic = APIJ_JOB_REF_MAGIC;
  EXPECT_EQ(apij_JobRefRelease(inst, &ref), -2);
  EXPECT_EQ(ref.magic, 0);
  EXPECT_EQ(apij_JobRefRelease(inst, &ref), -22);
}

TEST_F(ApijTest, LookupsWithoutOutReferenceTakeNoCount) {
  Make();
  ASSERT_EQ(apij_JobCreate(inst, nullptr, 12, 0, nullptr), 1);
  EXPECT_EQ(apij_JobRefGet(inst, 1, nullptr), 1);
  EXPECT_EQ(apij_JobRefGetTmr(inst, 12, nullptr), 1);
  log.clear();
  EXPECT_EQ(apij_JobDestroy(inst, 1), 0);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDestroy_node_nolock(1), refcount=0\n",
                                "_apij_jobnode_destroy_nolock(1)\n"}));
}

TEST_F(ApijTest, LookupsWithOutReferenceTakeOneCountEach) {
  Make();
  apij_job_ref a;
  apij_job_ref b;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, 12, 0, nullptr), 1);
  EXPECT_EQ(apij_JobRefGet(inst, 1, &a), 1);
  EXPECT_EQ(apij_JobRefGetTmr(inst, 12, &b), 1);
  EXPECT_EQ(b.id, 1);
  EXPECT_EQ(b.tmrId, 12);
  EXPECT_EQ(b.magic, 0x726A);
  log.clear();
  EXPECT_EQ(apij_JobDestroy(inst, 1), 0);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDestroy_node_nolock(1), refcount=2\n"}));
  EXPECT_EQ(apij_JobRefRelease(inst, &a), 0);
  EXPECT_EQ(apij_JobRefRelease(inst, &b), 0);
}

TEST_F(ApijTest, RefGetTmrSkipsDeletedJobsAndFindsALaterOne) {
  Make();
  apij_job_ref held;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, 7, 0, &held), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, 8, 0, nullptr), 2);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 3);
  EXPECT_EQ(apij_JobAssignTmrId(inst, 3, 7), 0);
  EXPECT_EQ(apij_JobRefGetTmr(inst, 7, nullptr), 1);  // the first from the head
  ASSERT_EQ(apij_JobDestroy(inst, 1), 0);             // deleted, still held
  apij_job_ref ref;
  EXPECT_EQ(apij_JobRefGetTmr(inst, 7, &ref), 3);
  EXPECT_EQ(ref.id, 3);
  EXPECT_EQ(ref.tmrId, 7);
  EXPECT_EQ(apij_JobRefGetTmr(inst, 9, nullptr), -2);
  EXPECT_EQ(apij_JobRefRelease(inst, &ref), 0);
  EXPECT_EQ(apij_JobRefRelease(inst, &held), 0);
}

TEST_F(ApijTest, AssignTmrIdToUnknownJob) {
  Make();
  EXPECT_EQ(apij_JobAssignTmrId(inst, 4, 1), -2);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  EXPECT_EQ(apij_JobRefGetTmr(inst, -1, nullptr), 1);  // the default timer id
  EXPECT_EQ(apij_JobAssignTmrId(inst, 1, 5), 0);
  EXPECT_EQ(apij_JobRefGetTmr(inst, -1, nullptr), -2);
  EXPECT_EQ(apij_JobRefGetTmr(inst, 5, nullptr), 1);
}

// ---------------------------------------------------------------------------
// Callbacks

TEST_F(ApijTest, JobDestroyedInsideItsOwnCallbackIsFreedAfterTheCallback) {
  Make();
  CbProbe probe;
  int inside_lookup = 0;
  size_t inside_blocks = 0;
  probe.body = [&](apij_inst *i, apij_job_ref *ref) {
    EXPECT_EQ(apij_JobDestroy(i, ref->id), 0);
    inside_lookup = apij_JobRefGet(i, ref->id, nullptr);
    inside_blocks = alloc.live_blocks();
  };
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, &probe), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 2);
  log.clear();
  EXPECT_EQ(apij_JobDone(inst, 2, 5), 0);
  EXPECT_EQ(probe.calls, 1);
  EXPECT_EQ(inside_lookup, -2);  // marked, invisible
  EXPECT_EQ(inside_blocks, 3u);  // but not freed while the callback runs
  EXPECT_EQ(alloc.live_blocks(), 2u);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDone_nolock(2), result=5\n",
                                "_apij_JobDestroy_node_nolock(2), refcount=1\n",
                                "_apij_JobRefRelease_nolock(2), refcount=0\n",
                                "_apij_jobnode_destroy_nolock(2)\n"}));
}

TEST_F(ApijTest, UnregisterInsideACallbackIsDelayedUntilDepthZero) {
  Make();
  CbProbe a;
  CbProbe b;
  int delay_a = 0;
  int delay_b = 0;
  int again = 0;
  int poll = 0;
  int32_t poll_result = 0;
  size_t inside_blocks = 0;
  a.body = [&](apij_inst *i, apij_job_ref *) {
    delay_a = apij_CbUnregister(i, 1, 0);
    again = apij_CbUnregister(i, 1, 0);
    // A job completing meanwhile with the callback's id does not call it.
    EXPECT_EQ(apij_JobDone(i, 4, 7), 0);
    // The delay is global: b is not running, yet it is delayed too.
    delay_b = apij_CbUnregister(i, 2, 0);
    poll = apij_JobResultGet(i, delay_a, &poll_result, 0);
    inside_blocks = alloc.live_blocks();
  };
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, &a), 1);
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, &b), 2);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 3);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 4);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 2, nullptr), 5);
  log.clear();
  EXPECT_EQ(apij_JobDone(inst, 3, 1), 0);
  EXPECT_EQ(delay_a, 6);
  EXPECT_EQ(again, -2);
  EXPECT_EQ(delay_b, 7);
  EXPECT_EQ(poll, 110);
  EXPECT_EQ(poll_result, -14);
  EXPECT_EQ(a.calls, 1);
  EXPECT_EQ(b.calls, 0);
  EXPECT_EQ(inside_blocks, 1u + 2u + 3u + 2u);  // both nodes and both delay jobs remain
  EXPECT_EQ(log.texts(),
            (Lines{
                "_apij_JobDone_nolock(3), result=1\n",
                "apij_CbUnregister() delay unregistering of callback id 1 (jobid=6).\n",
                "apij_CbUnregister(): unknown callback id 1.\n",
                "_apij_JobDone_nolock(4), result=7\n",
                "apij_CbUnregister() delay unregistering of callback id 2 (jobid=7).\n",
                "apij_JobResultGet(6): Job not done yet\n",
                "_apij_JobRefRelease_nolock(3), refcount=0\n",
                "_apij_callback_cleanup_nolock(): late unregistering callback_id 1 (jobid=6).\n",
                "_apij_JobDone_nolock(6), result=0\n",
                "_apij_JobDestroy_node_nolock(6), refcount=0\n",
                "_apij_jobnode_destroy_nolock(6)\n",
                "_apij_callback_cleanup_nolock(): late unregistering callback_id 2 (jobid=7).\n",
                "_apij_JobDone_nolock(7), result=0\n",
                "_apij_JobDestroy_node_nolock(7), refcount=0\n",
                "_apij_jobnode_destroy_nolock(7)\n",
            }));
  // Both nodes and delay jobs are gone; the completed jobs stay.
  EXPECT_EQ(alloc.live_blocks(), 1u + 3u);
  EXPECT_EQ(apij_CbUnregister(inst, 1, 0), -2);
  EXPECT_EQ(apij_CbUnregister(inst, 2, 0), -2);
  EXPECT_EQ(apij_JobRefGet(inst, 6, nullptr), -2);
  EXPECT_EQ(apij_JobDone(inst, 5, 0), 0);
  EXPECT_EQ(b.calls, 0);
  EXPECT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 8);
}

TEST_F(ApijTest, NestedCallbacksCleanUpOnlyAtTheOutermostEnd) {
  Make();
  CbProbe outer;
  CbProbe inner;
  int delay = 0;
  Lines after_inner;
  inner.body = [&](apij_inst *i, apij_job_ref *) { delay = apij_CbUnregister(i, 2, 0); };
  outer.body = [&](apij_inst *i, apij_job_ref *) {
    EXPECT_EQ(apij_JobDone(i, 4, 0), 0);  // runs inner at depth 2
    after_inner = log.texts();
  };
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, &outer), 1);
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, &inner), 2);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 3);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 2, nullptr), 4);
  log.clear();
  EXPECT_EQ(apij_JobDone(inst, 3, 0), 0);
  EXPECT_EQ(inner.calls, 1);
  EXPECT_EQ(delay, 5);
  EXPECT_EQ(after_inner, (Lines{
                             "_apij_JobDone_nolock(3), result=0\n",
                             "_apij_JobDone_nolock(4), result=0\n",
                             "apij_CbUnregister() delay unregistering of callback id 2 (jobid=5).\n",
                             "_apij_JobRefRelease_nolock(4), refcount=0\n",
                         }));
  auto all = log.texts();
  ASSERT_EQ(all.size(), 9u);
  EXPECT_EQ(all[4], "_apij_JobRefRelease_nolock(3), refcount=0\n");
  EXPECT_EQ(all[5], "_apij_callback_cleanup_nolock(): late unregistering callback_id 2 (jobid=5).\n");
  EXPECT_EQ(all[8], "_apij_jobnode_destroy_nolock(5)\n");
}

TEST_F(ApijTest, UnregisterOutsideCallbacksIsImmediate) {
  Make();
  CbProbe probe;
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, &probe), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 2);
  log.clear();
  EXPECT_EQ(apij_CbUnregister(inst, 1, 0), 0);
  EXPECT_EQ(apij_CbUnregister(inst, 1, 0), -2);
  EXPECT_EQ(apij_CbUnregister(inst, 2, 0), -2);  // a job id is no callback id
  EXPECT_EQ(log.texts(), (Lines{"apij_CbUnregister() callback id 1 unregistered.\n",
                                "apij_CbUnregister(): unknown callback id 1.\n",
                                "apij_CbUnregister(): unknown callback id 2.\n"}));
  EXPECT_EQ(alloc.live_blocks(), 2u);
  // The job without its callback completes silently.
  log.clear();
  EXPECT_EQ(apij_JobDone(inst, 2, 3), 0);
  EXPECT_EQ(probe.calls, 0);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDone_nolock(2), result=3\n"}));
}

TEST_F(ApijTest, UnregisterWithRemoveJobsDestroysItsOpenJobs) {
  Make();
  CbProbe probe;
  apij_job_ref held;
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, &probe), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 2);  // open
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 3);  // other callback
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, &held), 4);    // open, held
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 1, nullptr), 5);  // done
  ASSERT_EQ(apij_JobDone(inst, 5, 9), 0);
  ASSERT_EQ(probe.calls, 1);
  log.clear();
  EXPECT_EQ(apij_CbUnregister(inst, 1, 1), 0);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDestroy_node_nolock(2), refcount=0\n",
                                "_apij_jobnode_destroy_nolock(2)\n",
                                "_apij_JobDestroy_node_nolock(4), refcount=1\n",
                                "apij_CbUnregister() callback id 1 unregistered.\n"}));
  EXPECT_EQ(apij_JobRefGet(inst, 2, nullptr), -2);
  EXPECT_EQ(apij_JobRefGet(inst, 3, nullptr), 3);
  EXPECT_EQ(apij_JobRefGet(inst, 4, nullptr), -2);
  EXPECT_EQ(apij_JobRefGet(inst, 5, nullptr), 5);
  EXPECT_EQ(apij_JobRefRelease(inst, &held), 0);
  EXPECT_EQ(alloc.live_blocks(), 3u);
}

TEST_F(ApijTest, CallbackRoutineIsNotChecked) {
  Make();
  // A null routine is accepted; it is never called when no job names it.
  EXPECT_EQ(apij_CbRegister(inst, nullptr, nullptr), 1);
  EXPECT_EQ(apij_CbUnregister(inst, 1, 0), 0);
}

// ---------------------------------------------------------------------------
// Results and waiting

TEST_F(ApijTest, ResultOfADoneJobComesBackAtOnce) {
  Make();
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  ASSERT_EQ(apij_JobDone(inst, 1, 21), 0);
  log.clear();
  int32_t result = 0;
  EXPECT_EQ(apij_JobResultGet(inst, 1, &result, 0), 0);
  EXPECT_EQ(result, 21);
  result = 0;
  EXPECT_EQ(apij_JobResultGet(inst, 1, &result, 30), 0);  // no wait either
  EXPECT_EQ(result, 21);
  EXPECT_EQ(apij_JobResultGet(inst, 1, nullptr, -4), 0);
  const std::string line = "apij_JobResultGet(): Job id 1 already done with result 21, no need to wait.\n";
  EXPECT_EQ(log.texts(), (Lines{line, line, line}));
}

TEST_F(ApijTest, PollOfAnOpenJobIsPositive110) {
  Make();
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  log.clear();
  int32_t result = 0;
  EXPECT_EQ(apij_JobResultGet(inst, 1, &result, 0), 110);
  EXPECT_EQ(result, -14);
  result = 0;
  EXPECT_EQ(apij_JobResultGet(inst, 1, &result, -2), 110);
  EXPECT_EQ(result, -14);
  EXPECT_EQ(log.texts(), (Lines{"apij_JobResultGet(1): Job not done yet\n",
                                "apij_JobResultGet(1): Job not done yet\n"}));
  // The poll left nothing behind: the job completes normally.
  EXPECT_EQ(apij_JobDone(inst, 1, 2), 0);
}

TEST_F(ApijTest, PollOfAnUnknownJobOrBadInstanceIsPositive110Too) {
  Make();
  int32_t result = 0;
  EXPECT_EQ(apij_JobResultGet(inst, 42, &result, 0), 110);
  EXPECT_EQ(result, -14);
  result = 0;
  EXPECT_EQ(apij_JobResultGet(nullptr, 42, &result, 0), 110);
  EXPECT_EQ(result, -14);
  EXPECT_EQ(log.texts(), (Lines{"_apij_job_waiter_attach(): Unkown job id 42\n",
                                "apij_JobResultGet(42): Job not done yet\n",
                                "apij_JobResultGet(NULL): need context pointer\n",
                                "apij_JobResultGet(42): Job not done yet\n"}));
}

TEST_F(ApijTest, WaitOnAnUnknownJobIsMinus2) {
  Make();
  int32_t result = 0;
  EXPECT_EQ(apij_JobResultGet(inst, 42, &result, 5), -2);
  EXPECT_EQ(result, -14);
  EXPECT_EQ(log.texts(), (Lines{"_apij_job_waiter_attach(): Unkown job id 42\n",
                                "apij_JobResultGet(42): Waiting failed witch code -2\n"}));
}

TEST_F(ApijTest, PollOfADeletedJobStillReadsIt) {
  Make();
  apij_job_ref open;
  apij_job_ref done;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, &open), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, &done), 2);
  ASSERT_EQ(apij_JobDone(inst, 2, 8), 0);
  ASSERT_EQ(apij_JobDestroy(inst, 1), 0);
  ASSERT_EQ(apij_JobDestroy(inst, 2), 0);
  int32_t result = 0;
  EXPECT_EQ(apij_JobResultGet(inst, 1, &result, 0), 110);
  EXPECT_EQ(result, -14);
  EXPECT_EQ(apij_JobResultGet(inst, 2, &result, 0), 0);
  EXPECT_EQ(result, 8);
  EXPECT_EQ(apij_JobRefRelease(inst, &open), 0);
  EXPECT_EQ(apij_JobRefRelease(inst, &done), 0);
}

// The only test that really lets a wait expire: one second.
TEST_F(ApijTest, ExpiredWaitIsMinus110AndLeavesTheJobUsable) {
  Make();
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  log.clear();
  int32_t result = 0;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(apij_JobResultGet(inst, 1, &result, 1), -110);
  auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(result, -14);
  EXPECT_GE(elapsed, std::chrono::milliseconds(900));
  EXPECT_EQ(log.texts(), (Lines{"apij_JobResultGet(1): Waiting failed witch code -110\n"}));
  // The waiter detached itself: completion and destruction find no waiter.
  log.clear();
  EXPECT_EQ(apij_JobDone(inst, 1, 4), 0);
  EXPECT_EQ(apij_JobDestroy(inst, 1), 0);
  EXPECT_EQ(log.texts(), (Lines{"_apij_JobDone_nolock(1), result=4\n",
                                "_apij_JobDestroy_node_nolock(1), refcount=0\n",
                                "_apij_jobnode_destroy_nolock(1)\n"}));
}

// ---------------------------------------------------------------------------
// Allocation failures

TEST_F(ApijTest, InstCreateFailsCleanlyWithoutMemory) {
  apij_config config{};
  config.allocator = alloc.handle();
  long sizes[2] = {0, 0};
  for (int pass = 0; pass < 2; pass++) {
    config.instCookieSize = pass == 0 ? 0 : 24;
    int failures = 0;
    for (uint64_t n = 1;; n++) {
      log.clear();
      alloc.fail_at(n);
      apij_inst *created = apij_InstCreate(&config, nullptr);
      bool failed = alloc.failed();
      alloc.disarm();
      if (!failed) {
        ASSERT_NE(created, nullptr);
        EXPECT_EQ(apij_InstDestroy(created), 0);
        break;
      }
      failures++;
      EXPECT_EQ(created, nullptr);
      EXPECT_EQ(alloc.live_blocks(), 0u);
      auto texts = log.texts();
      ASSERT_EQ(texts.size(), 1u);
      sizes[pass] = BytesIn(texts[0], "apij_InstCreate(): failed to allocate ");
      EXPECT_EQ(texts[0], Fmt("apij_InstCreate(): failed to allocate %ld bytes context\n", sizes[pass]));
    }
    EXPECT_EQ(failures, 1);
  }
  EXPECT_GT(sizes[0], 0);
  EXPECT_EQ(sizes[1] - sizes[0], 24);  // the cookie lives in the same block
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

TEST_F(ApijTest, JobCreateFailsCleanlyWithoutMemory) {
  Make(10);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 1);
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, nullptr), 2);
  const size_t blocks = alloc.live_blocks();
  int failures = 0;
  int id = 0;
  apij_job_ref ref;
  char cookie[10] = "cookie";
  for (uint64_t n = 1;; n++) {
    log.clear();
    std::memset(&ref, 0xAB, sizeof(ref));
    alloc.fail_at(n);
    id = apij_JobCreate(inst, cookie, 5, 2, &ref);
    bool failed = alloc.failed();
    alloc.disarm();
    if (!failed) break;
    failures++;
    EXPECT_EQ(id, -12);
    apij_job_ref zero{};
    EXPECT_EQ(std::memcmp(&ref, &zero, sizeof(ref)), 0);
    EXPECT_EQ(alloc.live_blocks(), blocks);
    auto texts = log.texts();
    ASSERT_EQ(texts.size(), 1u);
    long size = BytesIn(texts[0], "_apij_jobnode_create_nolock() failed to alloc ");
    EXPECT_GT(size, 10);
    EXPECT_EQ(texts[0], Fmt("_apij_jobnode_create_nolock() failed to alloc %ld bytes job node\n", size));
    EXPECT_EQ(apij_JobRefGet(inst, 1, nullptr), 1);
    EXPECT_EQ(apij_JobRefGetTmr(inst, 5, nullptr), -2);
  }
  EXPECT_EQ(failures, 1);
  EXPECT_EQ(id, 3);  // the failed attempt consumed no id
  EXPECT_EQ(ref.id, 3);
  EXPECT_EQ(std::memcmp(ref.cookie, cookie, 10), 0);
  EXPECT_EQ(apij_JobRefRelease(inst, &ref), 0);
  // Without an out reference the failure is the same.
  alloc.fail_at(1);
  EXPECT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), -12);
  alloc.disarm();
  EXPECT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 4);
}

TEST_F(ApijTest, CbRegisterFailsCleanlyWithoutMemory) {
  Make(0, 12);
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, nullptr), 1);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, nullptr), 2);
  const size_t blocks = alloc.live_blocks();
  int failures = 0;
  int id = 0;
  for (uint64_t n = 1;; n++) {
    log.clear();
    alloc.fail_at(n);
    id = apij_CbRegister(inst, ProbeCallback, nullptr);
    bool failed = alloc.failed();
    alloc.disarm();
    if (!failed) break;
    failures++;
    EXPECT_EQ(id, -12);
    EXPECT_EQ(alloc.live_blocks(), blocks);
    auto texts = log.texts();
    ASSERT_EQ(texts.size(), 1u);
    long size = BytesIn(texts[0], "_apij_cbnode_create_nolock() failed to alloc ");
    EXPECT_GT(size, 12);
    EXPECT_EQ(texts[0], Fmt("_apij_cbnode_create_nolock() failed to alloc %ld bytes callback node\n", size));
  }
  EXPECT_EQ(failures, 1);
  EXPECT_EQ(id, 3);
  // The callbacks are as they were: 1 and the new 3.
  EXPECT_EQ(apij_CbUnregister(inst, 1, 0), 0);
  EXPECT_EQ(apij_CbUnregister(inst, 3, 0), 0);
}

TEST_F(ApijTest, DelayedUnregisterFailsCleanlyWithoutMemory) {
  Make();
  CbProbe probe;
  int failures = 0;
  int last_rc = 0;
  int next_expected = 0;
  int32_t running_job = 0;
  int cb = apij_CbRegister(inst, ProbeCallback, &probe);
  ASSERT_EQ(cb, 1);
  // An open job of the callback, which removeJobs would destroy.
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, cb, nullptr), 2);
  for (uint64_t n = 1; n < 10; n++) {
    running_job = apij_JobCreate(inst, nullptr, -1, cb, nullptr);
    ASSERT_GT(running_job, 0);
    next_expected = running_job + 1;
    bool failed = false;
    Lines texts;
    size_t blocks_before = 0;
    size_t blocks_after = 0;
    probe.body = [&](apij_inst *i, apij_job_ref *) {
      blocks_before = alloc.live_blocks();
      log.clear();
      alloc.fail_at(n);
      last_rc = apij_CbUnregister(i, cb, 1);
      failed = alloc.failed();
      alloc.disarm();
      texts = log.texts();
      blocks_after = alloc.live_blocks();
    };
    ASSERT_EQ(apij_JobDone(inst, running_job, 0), 0);
    if (!failed) break;
    failures++;
    EXPECT_EQ(last_rc, -12);
    EXPECT_EQ(blocks_after, blocks_before);
    ASSERT_EQ(texts.size(), 2u);
    long size = BytesIn(texts[0], "_apij_jobnode_create_nolock() failed to alloc ");
    EXPECT_EQ(texts[0], Fmt("_apij_jobnode_create_nolock() failed to alloc %ld bytes job node\n", size));
    EXPECT_EQ(texts[1], "apij_CbUnregister(): failed delay unregistering of callback id 1.\n");
    // Nothing changed: the open job is still there, the callback still
    // registered and not pending.
    EXPECT_EQ(apij_JobRefGet(inst, 2, nullptr), 2);
    EXPECT_EQ(apij_JobDestroy(inst, running_job), 0);
  }
  EXPECT_EQ(failures, 1);
  EXPECT_EQ(last_rc, next_expected);  // no id was consumed by the failure
  EXPECT_EQ(apij_JobRefGet(inst, 2, nullptr), -2);  // removed this time
  EXPECT_EQ(apij_CbUnregister(inst, cb, 0), -2);    // gone after the callback
  EXPECT_EQ(apij_JobRefGet(inst, last_rc, nullptr), -2);
}

TEST_F(ApijTest, AllBlocksAreFreedByInstDestroy) {
  Make(8, 8, 8);
  apij_job_ref ref;
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 0, &ref), 1);
  ASSERT_EQ(apij_CbRegister(inst, ProbeCallback, nullptr), 2);
  ASSERT_EQ(apij_JobCreate(inst, nullptr, -1, 2, nullptr), 3);
  ASSERT_EQ(apij_JobDestroy(inst, 1), 0);  // held by ref
  EXPECT_EQ(alloc.live_blocks(), 4u);
  EXPECT_EQ(apij_InstDestroy(inst), 0);
  inst = nullptr;
  EXPECT_EQ(alloc.live_blocks(), 0u);
}

}  // namespace
