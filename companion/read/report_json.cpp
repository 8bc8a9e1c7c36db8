// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "read/report_text.h"

namespace ThreadUtilities::companion {
namespace {

using nlohmann::json;

/// Names may be any bytes; what is no UTF-8 becomes U+FFFD.
std::string line(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
}

const char* sourceName(NameSource source) {
    switch (source) {
        case NameSource::debugInformation:
            return "debug information";
        case NameSource::dynamicSymbols:
            return "dynamic symbols";
        case NameSource::none:
            break;
    }
    return "none";
}

json frameJson(FrameId id, const FrameTable& frames, const Symbols& symbols) {
    const FrameName& name = symbols.name(id);
    json places = json::array();
    for (const SourcePlace& place : name.places) {
        places.push_back(
            {{"function", place.function}, {"file", place.file}, {"line", place.line}});
    }
    const Module& module = frames.moduleOf(id);
    return {{"module", module.fileName},
            {"offset", frames.frame(id).offset},
            {"guid", guidText(module.guid)},
            {"names", std::move(places)},
            {"source", sourceName(name.source)}};
}

json stackOf(const std::vector<FrameId>& stack, const FrameTable& frames, const Symbols& symbols) {
    json result = json::array();
    for (const FrameId frame : stack) {
        result.push_back(frameJson(frame, frames, symbols));
    }
    return result;
}

}  // namespace

/// Calls as rows, [function, parent row, line, samples, own samples]; row 0 is the thread.
std::string profileJson(const Profile& profile, const FrameTable& frames, const Symbols& symbols) {
    FunctionTable functions(frames, symbols);
    json threads = json::array();
    for (const ThreadProfile& thread : profile.threads) {
        json calls = json::array();
        for (const FunctionNode& node : functions.treeOf(thread)) {
            const bool isRoot = node.parent == FunctionNode::none;
            calls.push_back({isRoot ? json() : json(node.function),
                             isRoot ? json() : json(node.parent), node.line, node.total,
                             node.self});
        }
        threads.push_back({{"id", thread.id},
                           {"name", thread.name},
                           {"samples", thread.samples},
                           {"calls", std::move(calls)}});
    }
    json names = json::array();
    for (FunctionId id = 0; id < functions.size(); ++id) {
        const Function& function = functions.function(id);
        names.push_back({{"name", function.name},
                         {"file", function.file},
                         {"module", function.module},
                         {"source", sourceName(function.source)}});
    }
    return line({{"type", "profile"},
                 {"line", profile.line},
                 {"samples", profile.totalSamples},
                 {"iterations", profile.iterations ? json(*profile.iterations) : json()},
                 {"parallelism", profile.parallelism},
                 {"functions", std::move(names)},
                 {"threads", std::move(threads)}});
}

std::string threadsJson(const ThreadReport& report, const FrameTable& frames,
                        const Symbols& symbols) {
    json threads = json::array();
    for (const ThreadStack& thread : report.threads) {
        threads.push_back({{"id", thread.id},
                           {"name", thread.name},
                           {"frames", stackOf(thread.frames, frames, symbols)}});
    }
    return line({{"type", "threads"}, {"line", report.line}, {"threads", std::move(threads)}});
}

std::string stackJson(const StackText& stack, const FrameTable& frames, const Symbols& symbols) {
    return line({{"type", "stack"},
                 {"line", stack.line},
                 {"before", stack.before},
                 {"after", stack.after},
                 {"frames", stackOf(stack.frames, frames, symbols)}});
}

std::string symbolsJson(const FrameTable& frames, const Symbols& symbols) {
    json modules = json::array();
    for (ModuleId id = 1; id < frames.moduleCount(); ++id) {
        const ModuleSymbols& module = symbols.module(id);
        modules.push_back({{"name", module.name},
                           {"guid", guidText(frames.module(id).guid)},
                           {"file", module.file.string()},
                           {"debugFile", module.debugFile.string()},
                           {"frames", module.frames},
                           {"named", module.named},
                           {"namedByDynamicSymbols", module.namedByDynamicSymbols},
                           {"missing", module.missing}});
    }
    return line({{"type", "symbols"}, {"modules", std::move(modules)}});
}

std::string textJson(std::string_view text) {
    return line({{"type", "text"}, {"text", text}});
}

}  // namespace ThreadUtilities::companion
