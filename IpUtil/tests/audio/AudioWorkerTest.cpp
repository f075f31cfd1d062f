#include <IpUtil/AudioWorker.h>
#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace
{
using Tavro8::Utility::AudioWorker;

TEST(AudioWorker, doesItsWorkInOrderOnOneThreadOfItsOwn)
{
    AudioWorker worker;
    EXPECT_FALSE(worker.isRunning()) << "a thread before there is work";
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    std::promise<void> done;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(worker.post([&, i] {
            order.push_back(i);
            threads.push_back(std::this_thread::get_id());
        }));
    }
    worker.post([&] { done.set_value(); });
    done.get_future().wait();
    EXPECT_TRUE(worker.isRunning());
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    EXPECT_NE(threads.front(), std::this_thread::get_id());
    EXPECT_EQ(threads.front(), threads.back());
}

TEST(AudioWorker, refusesToJoinItself)
{
    AudioWorker worker;
    std::promise<std::string> failure;
    worker.post([&] { failure.set_value(worker.join()); });
    EXPECT_EQ(failure.get_future().get().find("boost thread: trying joining itself"), 0U);
    worker.stop();
    EXPECT_EQ(worker.join(), "");
    EXPECT_EQ(worker.join(), "") << "a second time";
}

TEST(AudioWorker, takesNoWorkOnceItHasBeenStopped)
{
    AudioWorker worker;
    worker.stop();
    EXPECT_FALSE(worker.post([] { FAIL(); }));
    EXPECT_EQ(worker.join(), "");
    EXPECT_FALSE(worker.isRunning());
}

TEST(AudioWorker, dropsWhatWasPostedBehindTheStop)
{
    const auto ran = std::make_shared<std::atomic<bool>>(false);
    {
        AudioWorker worker;
        std::promise<void> posted;
        std::promise<void> stopped;
        worker.post([&] {
            posted.get_future().wait();
            worker.stop();
            stopped.set_value();
        });
        worker.post([ran] { *ran = true; });
        posted.set_value();
        stopped.get_future().wait();
    }
    EXPECT_FALSE(*ran);
    EXPECT_EQ(ran.use_count(), 1) << "what was not done is destroyed with the worker";
}

TEST(AudioWorker, mayGoOnItsOwnThread)
{
    auto worker = std::make_unique<AudioWorker>();
    std::promise<void> gone;
    AudioWorker* const raw = worker.get();
    raw->post([&gone, held = std::shared_ptr<AudioWorker>(std::move(worker))]() mutable {
        held.reset();
        gone.set_value();
    });
    gone.get_future().wait();
}
}  // namespace
