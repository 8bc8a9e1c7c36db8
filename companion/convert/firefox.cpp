// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "convert/formats.h"
#include "support/json_text.h"
#include "support/string_table.h"

namespace ThreadUtilities::companion {
namespace {

/// The numbers that a thread's tables give to the functions, and to the modules as resources.
struct Tables {
    std::unordered_map<FunctionId, std::size_t> functionNumbers;
    std::vector<FunctionId> functions;
    std::unordered_map<std::string_view, std::size_t> resourceNumbers;
    std::vector<std::string_view> resources;
    StringTable strings;
};

Tables collect(const FunctionTree& tree, const FunctionTable& functions) {
    Tables tables;
    for (std::size_t index = 1; index < tree.size(); ++index) {
        const FunctionId id = tree[index].function;
        if (tables.functionNumbers.try_emplace(id, tables.functions.size()).second) {
            tables.functions.push_back(id);
            const std::string_view module = functions.function(id).module;
            if (!module.empty() &&
                tables.resourceNumbers.try_emplace(module, tables.resources.size()).second) {
                tables.resources.push_back(module);
            }
        }
    }
    return tables;
}

class ThreadWriter {
 public:
    ThreadWriter(std::ostream& target, const FunctionTable& functionTable,
                 const std::unordered_map<std::string_view, std::size_t>& libraryNumbers)
        : output(target), functions(functionTable), libraries(libraryNumbers) {}

    void write(const ThreadProfile& thread, const FunctionTree& tree, bool isMain) {
        Tables tables = collect(tree, functions);
        output << R"({"processType":"default","processStartupTime":0,"processShutdownTime":null,)"
               << R"("registerTime":0,"unregisterTime":null,"pausedRanges":[],"name":)"
               << jsonString(threadLabel(thread)) << R"(,"isMainThread":)"
               << (isMain ? "true" : "false") << R"(,"pid":"1","tid":)" << thread.id;
        writeSamples(tree);
        writeStacks(tree, tables);
        writeFunctions(tables);
        output << R"(,"markers":{"data":[],"name":[],"startTime":[],"endTime":[],"phase":[],)"
               << R"("category":[],"length":0},"nativeSymbols":{"libIndex":[],"address":[],)"
               << R"("name":[],"functionSize":[],"length":0},"stringArray":)";
        tables.strings.writeJson(output);
        output << '}';
    }

 private:
    void column(std::string_view name, std::size_t count, const auto& writeItem) {
        output << '"' << name << "\":";
        writeJsonArray(output, count, writeItem);
        output << ',';
    }

    void same(std::string_view name, std::size_t count, std::string_view item) {
        column(name, count, [&](std::size_t) { output << item; });
    }

    /// Node n of the tree is stack n - 1; the root is no stack.
    void writeSamples(const FunctionTree& tree) {
        std::vector<std::size_t> ends;
        for (std::size_t index = 0; index < tree.size(); ++index) {
            if (tree[index].self > 0) {
                ends.push_back(index);
            }
        }
        output << R"(,"samples":{"weightType":"samples",)";
        column("stack", ends.size(),
               [&](std::size_t at) { ends[at] == 0 ? output << "null" : output << ends[at] - 1; });
        std::uint64_t time = 0;
        column("time", ends.size(), [&](std::size_t at) {
            output << time;
            time += tree[ends[at]].self;
        });
        column("weight", ends.size(), [&](std::size_t at) { output << tree[ends[at]].self; });
        output << R"("length":)" << ends.size() << '}';
    }

    void writeStacks(const FunctionTree& tree, Tables& tables) {
        const std::size_t count = tree.size() - 1;
        output << R"(,"stackTable":{)";
        column("frame", count, [&](std::size_t at) { output << at; });
        same("category", count, "0");
        same("subcategory", count, "0");
        column("prefix", count, [&](std::size_t at) {
            const std::uint32_t parent = tree[at + 1].parent;
            parent == 0 ? output << "null" : output << parent - 1;
        });
        output << R"("length":)" << count << R"(},"frameTable":{)";
        same("address", count, "-1");
        same("inlineDepth", count, "0");
        same("category", count, "0");
        same("subcategory", count, "0");
        column("func", count,
               [&](std::size_t at) { output << tables.functionNumbers.at(tree[at + 1].function); });
        same("nativeSymbol", count, "null");
        same("innerWindowID", count, "0");
        same("implementation", count, "null");
        column("line", count, [&](std::size_t at) {
            const std::uint32_t line = tree[at + 1].line;
            line == 0 ? output << "null" : output << line;
        });
        same("column", count, "null");
        output << R"("length":)" << count << '}';
    }

    void writeFunctions(Tables& tables) {
        const std::size_t count = tables.functions.size();
        const auto function = [&](std::size_t at) -> const Function& {
            return functions.function(tables.functions[at]);
        };
        output << R"(,"funcTable":{)";
        same("isJS", count, "false");
        same("relevantForJS", count, "false");
        column("name", count,
               [&](std::size_t at) { output << tables.strings.id(function(at).name); });
        column("resource", count, [&](std::size_t at) {
            const auto resource = tables.resourceNumbers.find(function(at).module);
            resource == tables.resourceNumbers.end() ? output << -1 : output << resource->second;
        });
        column("fileName", count, [&](std::size_t at) {
            const std::string_view file = function(at).file;
            file.empty() ? output << "null" : output << tables.strings.id(file);
        });
        same("lineNumber", count, "null");
        same("columnNumber", count, "null");
        const std::size_t resourceCount = tables.resources.size();
        output << R"("length":)" << count << R"(},"resourceTable":{)";
        column("lib", resourceCount,
               [&](std::size_t at) { output << libraries.at(tables.resources[at]); });
        column("name", resourceCount,
               [&](std::size_t at) { output << tables.strings.id(tables.resources[at]); });
        same("host", resourceCount, "null");
        same("type", resourceCount, "1");  // a library
        output << R"("length":)" << resourceCount << '}';
    }

    std::ostream& output;
    const FunctionTable& functions;
    const std::unordered_map<std::string_view, std::size_t>& libraries;
};

}  // namespace

void writeFirefox(Source& source, std::ostream& output) {
    FunctionTable& functions = source.functions();
    const FrameTable& frames = source.frames();
    output << R"({"meta":{"interval":1,"startTime":0,"processType":0,"stackwalk":1,"version":30,)"
           << R"("preprocessedProfileVersion":48,"debug":false,"symbolicated":true,"product":)"
           << jsonString(source.title())
           << R"(,"importedFrom":"thread-utilities","sampleUnits":{"time":"ms","eventDelay":"ms",)"
           << R"("threadCPUDelta":"ns"},"categories":[{"name":"Other","color":"grey",)"
           << R"("subcategories":["Other"]}],"markerSchema":[]},"pages":[],"counters":[],"libs":)";
    // A breakpad id is the GUID and an age.
    std::unordered_map<std::string_view, std::size_t> libraries;
    writeJsonArray(output, frames.moduleCount() - 1, [&](std::size_t index) {
        const Module& module = frames.module(static_cast<ModuleId>(index + 1));
        const std::string name = jsonString(module.fileName);
        std::string id = guidText(module.guid);
        std::erase(id, '-');
        libraries.try_emplace(module.fileName, index);
        output << R"({"arch":"","name":)" << name << R"(,"path":)" << name << R"(,"debugName":)"
               << name << R"(,"debugPath":)" << name << R"(,"breakpadId":")" << id
               << R"(0","codeId":")" << buildIdText(module.guid) << R"("})";
    });
    output << R"(,"threads":)";
    ThreadWriter writer(output, functions, libraries);
    bool isMain = true;
    writeJsonArray(output, source.threads(), [&](const ThreadProfile& thread) {
        writer.write(thread, functions.treeOf(thread), isMain);
        isMain = false;
    });
    output << "}\n";
}

}  // namespace ThreadUtilities::companion
