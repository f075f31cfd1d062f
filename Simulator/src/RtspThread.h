#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include <functional>

namespace simulator
{

/// The one thread on which GStreamer's server handles its clients. The server is not made for more: a client that is
/// closed on another thread than its own is read from once more, a client may be gone before the thread that handed
/// it over has finished with it, and one that asks for a shared medium right when the last other leaves is refused.
class RtspThread {
public:
    /// Takes the only thread that the pool of `server` may have; throws std::runtime_error when it cannot be had.
    explicit RtspThread(GstRTSPServer* server);
    ~RtspThread();
    RtspThread(const RtspThread&) = delete;
    RtspThread& operator=(const RtspThread&) = delete;

    /// Has the thread do `work`, in the order of the calls. Any thread; `work` must not throw.
    void post(std::function<void()> work);
    /// The same, and waits until it is done.
    void run(const std::function<void()>& work);

private:
    GstRTSPThread* const thread;
};

}  // namespace simulator
