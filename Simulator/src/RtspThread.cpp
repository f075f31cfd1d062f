#include "RtspThread.h"

#include "Glib.h"

#include <future>
#include <stdexcept>

namespace simulator
{
namespace
{

using Work = std::function<void()>;

gboolean doWork(gpointer work)
{
    (*static_cast<Work*>(work))();
    return G_SOURCE_REMOVE;
}

void deleteWork(gpointer work)
{
    delete static_cast<Work*>(work);
}

GstRTSPThread* onlyThreadOf(GstRTSPServer* server)
{
    const GlibPointer<GstRTSPThreadPool> pool(gst_rtsp_server_get_thread_pool(server));
    gst_rtsp_thread_pool_set_max_threads(pool.get(), 1);
    GstRTSPContext noClient{};
    GstRTSPThread* const thread = gst_rtsp_thread_pool_get_thread(pool.get(), GST_RTSP_THREAD_TYPE_CLIENT, &noClient);
    if (thread == nullptr)
        throw std::runtime_error("there is no thread for the RTSP server");
    return thread;
}

}  // namespace

RtspThread::RtspThread(GstRTSPServer* server) : thread(onlyThreadOf(server)) {}

RtspThread::~RtspThread()
{
    gst_rtsp_thread_stop(thread);
}

void RtspThread::post(Work work)
{
    // Attached rather than invoked: from the thread itself, too, it comes after what was posted before.
    GSource* const source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, doWork, new Work(std::move(work)), deleteWork);
    g_source_attach(source, thread->context);
    g_source_unref(source);
}

void RtspThread::run(const Work& work)
{
    std::promise<void> done;
    post([&] {
        work();
        done.set_value();
    });
    done.get_future().wait();
}

}  // namespace simulator
