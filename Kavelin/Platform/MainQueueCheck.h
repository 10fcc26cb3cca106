#pragma once

// Every piece of controller state belongs to the main queue; nothing locks it.
// Debug builds check that at the entry of each operation that touches it, so a call
// that skipped the hop fails its test at once instead of racing one day in a game.
// Release builds compile the check out.
#if defined(KAVELIN_CHECK_MAIN_QUEUE)
#define KAVELIN_ASSERT_ON_MAIN_QUEUE() ::kavelin::assertOnMainQueue(__FILE__, __LINE__, __func__)
#else
#define KAVELIN_ASSERT_ON_MAIN_QUEUE() ((void)0)
#endif

namespace kavelin {

// Logs the offending operation and stops a debug build; a no-op before any platform
// exists or on the queue's own thread.
void assertOnMainQueue(const char* file, int line, const char* function);

}  // namespace kavelin
