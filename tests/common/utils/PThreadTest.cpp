#include "common/utils/PThread.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

/// What the threads of these tests run.
struct Worker
{
    int answer(void* argument) { return *static_cast<int*>(argument) + 1; }

    /// Runs until it is let go, and tells when it begins and ends.
    int stay(void* argument)
    {
        self = pthread_self();
        entered.signal(hasEntered);
        release.wait(isReleased);
        last = argument;
        left.signal(hasLeft);
        return -7;
    }

    PCondMutex entered;
    bool hasEntered = false;
    PCondMutex release;
    bool isReleased = false;
    PCondMutex left;
    bool hasLeft = false;
    void* last = nullptr;
    pthread_t self = {};
};

} // namespace

TEST(PThread, RunsTheMemberFunctionWithItsArgumentAndJoinGivesTheResult)
{
    Worker worker;
    int number = 41;
    PThread thread(nullptr, &worker, &Worker::answer, &number);
    EXPECT_EQ(thread.join(), 42);
}

TEST(PThread, NegativeResultComesThrough)
{
    Worker worker;
    worker.release.signal(worker.isReleased);
    PThread thread(nullptr, &worker, &Worker::stay, &worker);
    EXPECT_EQ(thread.join(), -7);
    EXPECT_EQ(worker.last, &worker);
}

TEST(PThread, SecondJoinReturnsAtOnce)
{
    Worker worker;
    int number = 1;
    PThread thread(nullptr, &worker, &Worker::answer, &number);
    EXPECT_EQ(thread.join(), 2);
    EXPECT_EQ(thread.join(), 0);
}

TEST(PThread, DestroyedObjectDoesNotStopItsThread)
{
    Worker worker;
    int argument = 0;
    auto thread = std::make_unique<PThread>(nullptr, &worker, &Worker::stay, &argument);
    worker.entered.wait(worker.hasEntered);
    thread.reset();
    EXPECT_EQ(worker.last, nullptr);
    worker.release.signal(worker.isReleased);
    // The thread still finds its delegate's target and its argument.
    worker.left.wait(worker.hasLeft);
    EXPECT_EQ(worker.last, &argument);
}

TEST(PThread, ObjectMayBeDestroyedRightAfterConstruction)
{
    for (int i = 0; i < 200; ++i) {
        Worker worker;
        worker.release.signal(worker.isReleased);
        {
            PThread thread(nullptr, &worker, &Worker::stay, nullptr);
        }
        worker.left.wait(worker.hasLeft);
    }
}

TEST(PThread, KnowsWhetherItIsTheCallingThread)
{
    struct Asker
    {
        int ask(void* /*argument*/)
        {
            made.wait(isMade);
            return thread->isCurrent() ? 1 : 0;
        }
        PCondMutex made;
        bool isMade = false;
        PThread* thread = nullptr;
    };
    Asker asker;
    PThread thread(nullptr, &asker, &Asker::ask, nullptr);
    asker.thread = &thread;
    asker.made.signal(asker.isMade);
    EXPECT_FALSE(thread.isCurrent());
    EXPECT_EQ(thread.join(), 1);
}

TEST(PThread, FailedCreationThrowsWithTheErrorNumber)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    // More address space than a process has.
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, std::size_t{1} << 52U), 0);
    Worker worker;
    std::string text;
    try {
        PThread thread(&attributes, &worker, &Worker::stay, nullptr);
        worker.release.signal(worker.isReleased);
        thread.join();
    } catch (const std::runtime_error& failure) {
        text = failure.what();
    }
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(text, "Failed to create thread: " + std::to_string(EAGAIN));
}

TEST(PThread, DelegateCloneCallsTheSameTarget)
{
    Worker worker;
    int number = 9;
    std::unique_ptr<PThreadDelegateGeneric> clone;
    {
        const PThreadDelegateMember<Worker> original(&worker, &Worker::answer);
        clone.reset(original.clone());
    }
    EXPECT_EQ(clone->Invoke(&number), 10);
}
