#include "commands/MediaFiles.h"

#include "PathText.h"
#include "media/MediaFile.h"
#include "media/Picture.h"

#include <CLI/CLI.hpp>
#include <string>

namespace Host
{
namespace
{
std::string checkRecording(std::string& file)
{
    return isMediaFile(file) ? "" : "the file's name must end in .mp4 or .mkv";
}

std::string checkPicture(std::string& file)
{
    return isPictureFile(file) ? "" : "the file's name must end in .png, .jpg or .jpeg";
}
}  // namespace

void describeMediaFiles(CLI::App& app, MediaFiles& files)
{
    app.add_option("--output", files.output,
                   "Record to FILE.mp4 or FILE.mkv, pictures as received; another format of\n"
                   "pictures or sound begins another file, FILE-2 and so on")
        ->check(CLI::Validator(checkRecording, "", "recording"))
        ->type_name("FILE");
    app.add_option("--snapshot", files.snapshot, "Save the first picture as FILE.png or FILE.jpg")
        ->check(CLI::Validator(checkPicture, "", "picture"))
        ->type_name("FILE");
}

void requireWritable(const MediaFiles& files)
{
    for (const auto& file : {files.output, files.snapshot})
        if (!file.empty())
            requireWritable(file);
}
}  // namespace Host
