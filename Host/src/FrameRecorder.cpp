#include "FrameRecorder.h"

#include "Console.h"
#include "ExitStatus.h"
#include "Monitor.h"
#include "PathText.h"
#include "media/Picture.h"

#include <chrono>
#include <utility>

namespace Host
{
using Tavro8::GDRV::FrameReference;
using Tavro8::GDRV::MediaFrame;
namespace
{
constexpr std::chrono::seconds patience{5};  // until the user is told what the program waits for
}

FrameRecorder::FrameRecorder(Wishes userWishes, Monitor& sharedMonitor, Console& userConsole)
    : wishes(std::move(userWishes)), monitor(sharedMonitor), console(userConsole), queue(FrameQueue::Limits{})
{
    if (!wishes.recording.empty())
        writer = std::make_unique<MediaWriter>(
            wishes.recording, wishes.sound, [this](const std::string& text) { console.line(text); }, wishes.onPart);
    thread = std::thread([this] { run(); });
}

FrameRecorder::~FrameRecorder()
{
    queue.close();
    if (thread.joinable())
        thread.join();
}

void FrameRecorder::run()
{
    try {
        while (const auto frame = queue.pop())
            take(*frame);
        complete();
    } catch (const std::exception& e) {
        failure = e.what();
        queue.close();
        while (queue.pop()) {  // gives the frames back to the module
        }
        monitor.change([this] { failed = true; });
    }
    monitor.change([this] { ended = true; });
}

void FrameRecorder::take(const FrameReference& frame)
{
    if (wishes.onFrame)
        wishes.onFrame(*frame);
    if (!wishes.picture.empty() && !pictureSaved && frame->keyFrame && !frame->damaged && isVideo(frame->codec))
        savePictureOf(*frame);
    if (writer)
        writer->write(frame);
}

void FrameRecorder::savePictureOf(const MediaFrame& frame)
{
    const FramePtr picture = decodePicture(frame);
    if (!picture)
        return;  // the next key frame may be better
    savePicture(*picture, wishes.picture);
    pictureSaved = true;
}

void FrameRecorder::complete()
{
    if (writer)
        writer->finish();
}

std::vector<RecordedPart> FrameRecorder::getRecordings() const
{
    return writer ? writer->getParts() : std::vector<RecordedPart>{};
}

void FrameRecorder::finish()
{
    queue.close();
    if (!monitor.wait({}, Monitor::Clock::now() + patience, [this] { return ended; }))
        console.line("the files are still being written; a second Ctrl-C ends the program and leaves them incomplete");
    if (thread.joinable())
        thread.join();
    if (!failure.empty())
        throw Failure(ExitStatus::failed, failure);
    if (!wishes.recording.empty() && getRecordings().empty())
        throw Failure(ExitStatus::failed,
                      "nothing was recorded to " + pathText(wishes.recording) + ": no complete key frame arrived");
    if (!wishes.picture.empty() && !pictureSaved)
        throw Failure(ExitStatus::failed, "no picture was saved to " + pathText(wishes.picture) +
                                              ": no key frame arrived that can be decoded");
}
}  // namespace Host
