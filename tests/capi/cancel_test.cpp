// A thread blocked in a file call can be cancelled: the C library's forced
// unwinding passes through the C interface's barrier instead of being
// swallowed there, which would abort the whole process.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "kelo/debuginfo.h"

namespace {

void* readFifo(void* path) {
  // Opening a FIFO for reading blocks until a writer comes: none will.
  keloDbgList list = keloDbgRead(static_cast<const char*>(path));
  keloDbgFree(list);
  return nullptr;
}

TEST(Cancellation, AThreadBlockedInReadCanBeCancelled) {
  const std::string fifo = testing::TempDir() + "kelo-cancel-" + std::to_string(getpid());
  unlink(fifo.c_str());
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, readFifo, const_cast<char*>(fifo.c_str())), 0);
  usleep(50 * 1000);  // let it block; cancelling earlier is fine too
  ASSERT_EQ(pthread_cancel(thread), 0);
  void* result = nullptr;
  ASSERT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  unlink(fifo.c_str());
}

}  // namespace
