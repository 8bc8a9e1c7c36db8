// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <concepts>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "read/report_text.h"
#include "support/json_text.h"

namespace ThreadUtilities::companion {
namespace {

/// JSON from its first character to its last. Half of the time that a report took went into
/// documents made to be written and thrown away.
class JsonLine {
 public:
    /// An object, or an array: `begin` is its bracket.
    JsonLine& open(char begin) {
        separate();
        text += begin;
        return *this;
    }
    JsonLine& close(char end) {
        text += end;
        return *this;
    }
    JsonLine& key(std::string_view name) {
        string(name);
        text += ':';
        return *this;
    }
    JsonLine& string(std::string_view value) {
        separate();
        appendJsonString(text, value);
        return *this;
    }
    JsonLine& number(std::integral auto value) {
        separate();
        text += std::to_string(value);
        return *this;
    }
    JsonLine& null() {
        separate();
        text += "null";
        return *this;
    }
    std::string finish() { return std::move(text) + '\n'; }

 private:
    void separate() {
        if (!text.empty() && std::string_view("[{:").find(text.back()) == std::string_view::npos) {
            text += ',';
        }
    }

    std::string text;
};

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

void addFrame(JsonLine& json, FrameId id, const FrameTable& frames, const Symbols& symbols) {
    const FrameName& name = symbols.name(id);
    const Module& module = frames.moduleOf(id);
    json.open('{').key("module").string(module.fileName);
    json.key("offset").number(frames.frame(id).offset).key("guid").string(guidText(module.guid));
    json.key("names").open('[');
    for (const SourcePlace& place : name.places) {
        json.open('{').key("function").string(place.function);
        json.key("file").string(place.file).key("line").number(place.line).close('}');
    }
    json.close(']').key("source").string(sourceName(name.source)).close('}');
}

void addStack(JsonLine& json, const std::vector<FrameId>& stack, const FrameTable& frames,
              const Symbols& symbols) {
    json.key("frames").open('[');
    for (const FrameId frame : stack) {
        addFrame(json, frame, frames, symbols);
    }
    json.close(']');
}

/// Calls are rows, [function, parent row, line, samples, own samples]; row 0 is the thread.
void addCalls(JsonLine& json, const FunctionTree& calls) {
    json.key("calls").open('[');
    for (const FunctionNode& node : calls) {
        json.open('[');
        if (node.parent == FunctionNode::none) {
            json.null().null();
        } else {
            json.number(node.function).number(node.parent);
        }
        json.number(node.line).number(node.total).number(node.self).close(']');
    }
    json.close(']');
}

JsonLine lineOf(std::string_view type) {
    JsonLine json;
    json.open('{').key("type").string(type);
    return json;
}

}  // namespace

std::string profileJson(const Profile& profile, const FrameTable& frames, const Symbols& symbols) {
    FunctionTable functions(frames, symbols);
    JsonLine json = lineOf("profile");
    json.key("line").number(profile.line).key("samples").number(profile.totalSamples);
    json.key("parallelism").number(profile.parallelism).key("iterations");
    profile.iterations ? json.number(*profile.iterations) : json.null();
    json.key("threads").open('[');
    for (const ThreadProfile& thread : profile.threads) {
        json.open('{').key("id").number(thread.id).key("name").string(thread.name);
        json.key("samples").number(thread.samples);
        addCalls(json, functions.treeOf(thread));
        json.close('}');
    }
    json.close(']').key("functions").open('[');
    for (FunctionId id = 0; id < functions.size(); ++id) {
        const Function& function = functions.function(id);
        json.open('{').key("name").string(function.name).key("file").string(function.file);
        json.key("module").string(function.module);
        json.key("source").string(sourceName(function.source)).close('}');
    }
    return json.close(']').close('}').finish();
}

std::string threadsJson(const ThreadReport& report, const FrameTable& frames,
                        const Symbols& symbols) {
    JsonLine json = lineOf("threads");
    json.key("line").number(report.line).key("threads").open('[');
    for (const ThreadStack& thread : report.threads) {
        json.open('{').key("id").string(thread.id).key("name").string(thread.name);
        addStack(json, thread.frames, frames, symbols);
        json.close('}');
    }
    return json.close(']').close('}').finish();
}

std::string stackJson(const StackText& stack, const FrameTable& frames, const Symbols& symbols) {
    JsonLine json = lineOf("stack");
    json.key("line").number(stack.line).key("before").string(stack.before);
    json.key("after").string(stack.after);
    addStack(json, stack.frames, frames, symbols);
    return json.close('}').finish();
}

std::string symbolsJson(const FrameTable& frames, const Symbols& symbols) {
    JsonLine json = lineOf("symbols");
    json.key("modules").open('[');
    for (ModuleId id = 1; id < frames.moduleCount(); ++id) {
        const ModuleSymbols& module = symbols.module(id);
        json.open('{').key("name").string(module.name);
        json.key("guid").string(guidText(frames.module(id).guid));
        json.key("file").string(module.file.string());
        json.key("debugFile").string(module.debugFile.string());
        json.key("frames").number(module.frames).key("named").number(module.named);
        json.key("namedByDynamicSymbols").number(module.namedByDynamicSymbols);
        json.key("missing").string(module.missing).close('}');
    }
    return json.close(']').close('}').finish();
}

std::string textJson(std::string_view text) {
    return lineOf("text").key("text").string(text).close('}').finish();
}

}  // namespace ThreadUtilities::companion
