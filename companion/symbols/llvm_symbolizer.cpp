// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "symbols/llvm_symbolizer.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "symbols/function_names.h"

namespace ThreadUtilities::companion {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

constexpr const char* programName = "llvm-symbolizer";

FrameName nameFrom(const json& answer, bool shortNames, const KeepText& keep) {
    FrameName name;
    for (const json& symbol : answer.value("Symbol", json::array())) {
        std::string function = symbol.value("FunctionName", "");
        if (function.empty()) {
            continue;
        }
        function = demangle(function.c_str());
        const std::string file = symbol.value("FileName", "");
        name.source = file.empty() ? NameSource::dynamicSymbols : NameSource::debugInformation;
        name.places.push_back({keep(shortNames ? withoutTemplateArguments(function) : function),
                               file.empty() ? std::string_view() : keep(file),
                               symbol.value("Line", 0U)});
    }
    return name;
}

/// Its answers, one a line. Questions and answers are files, so that neither side waits for the
/// other.
bool run(const fs::path& program, const fs::path& module, std::FILE* questions,
         std::FILE* answers) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fileno(questions), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fileno(answers), STDOUT_FILENO);
    std::array<std::string, 5> words = {program.string(), "--obj=" + module.string(), "--inlines",
                                        "--relative-address", "--output-style=JSON"};
    std::array<char*, words.size() + 1> arguments = {};
    for (std::size_t index = 0; index < words.size(); ++index) {
        arguments[index] = words[index].data();
    }
    pid_t child = 0;
    const int error =
        posix_spawn(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    return error == 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

}  // namespace

fs::path findLlvmSymbolizer() {
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "" : path);
    fs::path found;
    for (std::string folder; std::getline(folders, folder, ':');) {
        std::error_code error;
        for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
            const std::string name = entry.path().filename();
            if (name == programName) {
                return entry.path();
            }
            if (name.starts_with(std::string(programName) + '-')) {
                found = entry.path();
            }
        }
    }
    return found;
}

std::optional<std::vector<FrameName>> namesByLlvm(const fs::path& program, const fs::path& module,
                                                  std::span<const std::uint64_t> offsets,
                                                  bool shortNames, const KeepText& keep) {
    const File questions(std::tmpfile());
    const File answers(std::tmpfile());
    if (!questions || !answers) {
        return std::nullopt;
    }
    for (const std::uint64_t offset : offsets) {
        std::fprintf(questions.get(), "0x%llx\n", static_cast<unsigned long long>(offset));
    }
    if (std::fseek(questions.get(), 0, SEEK_SET) != 0 ||
        !run(program, module, questions.get(), answers.get()) ||
        std::fseek(answers.get(), 0, SEEK_SET) != 0) {
        return std::nullopt;
    }
    std::vector<FrameName> names;
    std::string line;
    for (int character = std::fgetc(answers.get());
         character != EOF && names.size() < offsets.size(); character = std::fgetc(answers.get())) {
        if (character != '\n') {
            line += static_cast<char>(character);
            continue;
        }
        const json answer = json::parse(line, nullptr, false);
        names.push_back(answer.is_object() ? nameFrom(answer, shortNames, keep) : FrameName());
        line.clear();
    }
    names.resize(offsets.size());
    return names;
}

}  // namespace ThreadUtilities::companion
