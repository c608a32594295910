#include "lum/CMutex.h"

#include "lum/CMutexLock.h"
#include "lum/P.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace lum;

namespace {

TEST(CMutex, LetsOneThreadInAtATime) {
    constexpr int threadCount = 4;
    constexpr int rounds = 5000;
    const P<CMutex> mutex(new CMutex);
    std::atomic<int> inside = 0;
    std::atomic<bool> metAnother = false;
    long sum = 0; // not atomic: the mutex guards it

    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&] {
            for (int k = 0; k < rounds; ++k) {
                const CMutexLock lock(mutex.get());
                if (++inside != 1)
                    metAnother = true;
                ++sum;
                --inside;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_FALSE(metAnother);
    EXPECT_EQ(sum, threadCount * rounds);
}

TEST(CMutex, HeldMutexKeepsOthersWaiting) {
    const P<CMutex> mutex(new CMutex);
    std::atomic<bool> entered = false;

    mutex->lock();
    std::thread other([&] {
        const CMutexLock lock(mutex.get());
        entered = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(entered);
    mutex->unlock();
    other.join();
    EXPECT_TRUE(entered);
}

TEST(CMutexLock, LetsGoWhenItsScopeIsLeftByAnException) {
    const P<CMutex> mutex(new CMutex);
    EXPECT_THROW(
        {
            const CMutexLock lock(mutex.get());
            throw std::runtime_error("out");
        },
        std::runtime_error);

    std::atomic<bool> entered = false;
    std::thread([&] {
        const CMutexLock lock(mutex.get());
        entered = true;
    }).join();
    EXPECT_TRUE(entered);
}

} // namespace
