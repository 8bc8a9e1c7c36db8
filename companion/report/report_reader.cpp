// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "report/report_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "report/frame_text.h"
#include "report/line_buffer.h"
#include "report/profile_reader.h"
#include "report/stack_reader.h"

namespace ThreadUtilities::companion {
namespace {

std::string reason(int error) {
    return std::generic_category().message(error);
}

class Descriptor {
 public:
    explicit Descriptor(int fileDescriptor) : number(fileDescriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (number > STDERR_FILENO) {
            close(number);
        }
    }

    const int number;
};

class Collector : public ReportSink {
 public:
    explicit Collector(Document& target) : document(target) {}

    void onText(std::string_view) override {}
    void onProfile(Profile&& profile) override { document.profiles.push_back(std::move(profile)); }
    void onThreads(ThreadReport&& report) override {
        document.threadReports.push_back(std::move(report));
    }
    void onStack(StackText&& stack) override { document.stacks.push_back(std::move(stack)); }
    void onComplaint(const Complaint& complaint) override {
        document.complaints.push_back(complaint);
    }

 private:
    Document& document;
};

}  // namespace

ReadBytes openInput(const std::filesystem::path& path) {
    const bool isStandardInput = path.empty() || path == "-";
    const std::string name = isStandardInput ? "standard input" : path.string();
    const auto file = std::make_shared<Descriptor>(
        isStandardInput ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    if (file->number < 0 || fstat(file->number, &status) != 0) {
        throw InputError(name + ": " + reason(errno));
    }
    if (S_ISDIR(status.st_mode)) {
        throw InputError(name + ": is a folder, not a report");
    }
    return [file, name](char* room, std::size_t size) {
        for (;;) {
            const ssize_t count = ::read(file->number, room, size);
            if (count >= 0) {
                return static_cast<std::size_t>(count);
            }
            if (errno != EINTR) {
                throw InputError(name + ": " + reason(errno));
            }
        }
    };
}

void readReports(const ReadBytes& input, FrameTable& frames, ReportSink& sink) {
    LineBuffer lines(input);
    FrameInterner interner(frames);
    ProfileReader profiles(lines, interner, sink);
    StackReader stacks(lines, interner, sink);
    while (!lines.peek().empty()) {
        if (const auto prefixLength = profiles.findBeginning()) {
            if (*prefixLength > 0) {
                sink.onText(std::string(lines.peek().substr(0, *prefixLength)) + '\n');
            }
            sink.onProfile(profiles.read());
        } else if (!stacks.read()) {
            sink.onText(lines.peek());
            lines.advance();
        }
    }
}

Document readDocument(const std::filesystem::path& path) {
    const std::string name = path.empty() || path == "-" ? "standard input" : path.string();
    Document document;
    Collector collector(document);
    readReports(openInput(path), document.frames, collector);
    if (document.profiles.empty() && document.threadReports.empty() && document.stacks.empty()) {
        throw InputError(name + ": no report of ThreadUtilities in it");
    }
    for (const Complaint& complaint : document.complaints) {
        if (complaint.isCutOff) {
            throw InputError(name + ": line " + std::to_string(complaint.line) + ": " +
                             complaint.what);
        }
    }
    return document;
}

}  // namespace ThreadUtilities::companion
