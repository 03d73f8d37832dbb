// Descriptors that the event loop watches.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <new>
#include <vector>

#include "tests/unit/base/event_loop_fixture.h"

static thread_local bool g_out_of_memory = false;

// The linker puts this in place of operator new(size_t).
extern "C" {
void* __real__Znwm(size_t size);
void* __wrap__Znwm(size_t size) {
    if (g_out_of_memory) {
        throw std::bad_alloc();
    }
    return __real__Znwm(size);
}
}

namespace loop_test {
namespace {

TEST_F(Loop, WatchReportsADescriptorWhileItIsReady) {
    const Pipe pipe;
    pipe.fill();
    pipe.fill();
    const auto watch = loop.watch(pipe.out(), true, false, [&](EventLoop::Ready ready) {
        EXPECT_TRUE(ready.read);
        EXPECT_FALSE(ready.write);
        pipe.drain();
        seen.emplace_back("byte");
    });
    run_ready(loop, clock);
    EXPECT_EQ(seen, (Seen{"byte", "byte"}));
}

TEST_F(Loop, WatchOfAWritableEndReportsWrite) {
    const Pipe pipe;
    EventLoop::Handle watch;
    watch = loop.watch(pipe.in(), false, true, [&](EventLoop::Ready ready) {
        EXPECT_TRUE(ready.write);
        EXPECT_FALSE(ready.read);
        seen.emplace_back("writable");
        watch.reset();
    });
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{"writable"});
    EXPECT_FALSE(watch);
}

TEST_F(Loop, WatchReportsOnlyTheRequestedConditions) {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);  // both readable and writable now
    EventLoop::Handle reader;
    EventLoop::Handle writer;
    reader = loop.watch(ends[0], true, false, [&](EventLoop::Ready ready) {
        EXPECT_FALSE(ready.write);
        seen.emplace_back(ready.read ? "readable" : "?");
        reader.reset();
    });
    run_ready(loop, clock);
    writer = loop.watch(ends[0], false, true, [&](EventLoop::Ready ready) {
        EXPECT_FALSE(ready.read);
        seen.emplace_back(ready.write ? "writable" : "?");
        writer.reset();
    });
    run_ready(loop, clock);
    EXPECT_EQ(seen, (Seen{"readable", "writable"}));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Loop, WatchRemovedWhileItsWorkWaitsIsNotFetched) {
    const Pipe one;
    const Pipe two;
    one.fill();
    two.fill();
    std::array<EventLoop::Handle, 2> watches;
    const auto remove_both = [&](EventLoop::Ready) {
        for (auto& watch : watches) {
            watch.reset();
        }
    };
    watches[0] = loop.watch(one.out(), true, false, remove_both);
    watches[1] = loop.watch(two.out(), true, false, remove_both);
    ASSERT_TRUE(loop.fetch());
    loop.run();
    EXPECT_FALSE(loop.fetch());
}

TEST_F(Loop, WatchRemovedAfterItsWorkWasFetchedDoesNotRun) {
    const Pipe pipe;
    pipe.fill();
    auto watch =
        loop.watch(pipe.out(), true, false, [&](EventLoop::Ready) { seen.emplace_back("ran"); });
    ASSERT_TRUE(loop.fetch());
    watch.reset();
    loop.run();
    EXPECT_EQ(seen, Seen{});
}

TEST_F(Loop, WatchThatRemovesItselfMayRunTheLoop) {
    const Pipe pipe;
    pipe.fill();
    EventLoop::Handle watch;
    watch = loop.watch(pipe.out(), true, false, [&](EventLoop::Ready) {
        watch.reset();
        run_ready(loop, clock);  // the byte is still there
        seen.emplace_back("ran");
    });
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{"ran"});
}

TEST_F(Loop, WatchMayRemoveAnotherThatIsReadyToo) {
    const Pipe one;
    const Pipe two;
    one.fill();
    two.fill();
    EventLoop::Handle first;
    EventLoop::Handle second;
    first = loop.watch(one.out(), true, false, [&](EventLoop::Ready) {
        seen.emplace_back("ran");
        second.reset();
        first.reset();
    });
    second = loop.watch(two.out(), true, false, [&](EventLoop::Ready) {
        seen.emplace_back("ran");
        first.reset();
        second.reset();
    });
    run_ready(loop, clock);
    EXPECT_EQ(seen, Seen{"ran"});
}

TEST_F(Loop, WatchOfARegularFileIsRefused) {
    const int fd = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(loop.watch(fd, true, false, [](EventLoop::Ready) {}));
    close(fd);
}

TEST_F(Loop, MemoryThatRunsOutWhileDescriptorsAreReportedDelaysThem) {
    std::array<Pipe, 40> pipes;
    std::vector<EventLoop::Handle> watches;
    size_t heard = 0;
    for (const Pipe& pipe : pipes) {
        pipe.fill();
        watches.push_back(loop.watch(pipe.out(), true, false, [&](EventLoop::Ready) {
            pipe.drain();
            ++heard;
        }));
    }
    g_out_of_memory = true;
    EXPECT_NO_THROW(loop.fetch());
    g_out_of_memory = false;
    loop.run();
    EXPECT_EQ(heard, 1u);
    run_ready(loop, clock);
    EXPECT_EQ(heard, pipes.size());
}

}  // namespace
}  // namespace loop_test
