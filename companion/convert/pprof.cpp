// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <ostream>
#include <protozero/pbf_writer.hpp>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "convert/formats.h"
#include "convert/gzip.h"
#include "support/json_text.h"
#include "symbols/module_files.h"

namespace ThreadUtilities::companion {
namespace {

// Numbers of the fields in profile.proto.
namespace profile_field {
constexpr protozero::pbf_tag_type sampleType = 1, sample = 2, mapping = 3, location = 4,
                                  function = 5, stringTable = 6;
}
namespace value_type_field {
constexpr protozero::pbf_tag_type type = 1, unit = 2;
}
namespace sample_field {
constexpr protozero::pbf_tag_type locationId = 1, value = 2, label = 3;
}
namespace label_field {
constexpr protozero::pbf_tag_type key = 1, text = 2, number = 3;
}
namespace mapping_field {
constexpr protozero::pbf_tag_type id = 1, memoryStart = 2, memoryLimit = 3, fileName = 5,
                                  buildId = 6, hasFunctions = 7, hasFileNames = 8,
                                  hasLineNumbers = 9, hasInlineFrames = 10;
}
namespace location_field {
constexpr protozero::pbf_tag_type id = 1, mappingId = 2, address = 3, line = 4;
}
namespace line_field {
constexpr protozero::pbf_tag_type functionId = 1, line = 2;
}
namespace function_field {
constexpr protozero::pbf_tag_type id = 1, name = 2, systemName = 3, fileName = 4;
}

constexpr std::uint64_t rangeAlignment = std::uint64_t{1} << 20;
constexpr std::uint64_t firstRange = std::uint64_t{1} << 32;
/// What has no frame needs a location all the same.
constexpr std::string_view noFrames = "(no frames)";
constexpr std::string_view unknownAddress = "(unknown)";

class PprofWriter {
 public:
    PprofWriter(Source& profileSource, std::ostream& output)
        : source(profileSource), compressed(output) {
        text("");  // number 0 must be the empty one
    }

    void write() {
        message(profile_field::sampleType, [&](protozero::pbf_writer& type) {
            type.add_int64(value_type_field::type, text("samples"));
            type.add_int64(value_type_field::unit, text("count"));
        });
        writeMappings();
        const auto frameCount = static_cast<FrameId>(source.frames().size());
        for (FrameId frame = 0; frame < frameCount; ++frame) {
            writeLocation(frame);
        }
        message(profile_field::location, [&](protozero::pbf_writer& location) {
            location.add_uint64(location_field::id, locationId(frameCount));
            addLine(location, noFrames, {}, 0);
        });
        for (const ThreadProfile& thread : source.threads()) {
            writeSamples(thread);
        }
        for (const std::string& each : texts) {
            std::string bytes;
            protozero::pbf_writer(bytes).add_string(profile_field::stringTable, each);
            compressed.write(bytes);
        }
        compressed.finish();
    }

 private:
    static std::uint64_t locationId(FrameId frame) { return std::uint64_t{frame} + 1; }

    std::int64_t text(std::string_view wanted) {
        const auto [known, isNew] = textIds.try_emplace(std::string(wanted), texts.size());
        if (isNew) {
            texts.push_back(validText(known->first));
        }
        return static_cast<std::int64_t>(known->second);
    }

    void message(protozero::pbf_tag_type field, const auto& fill) {
        std::string bytes;
        {
            protozero::pbf_writer outer(bytes);
            protozero::pbf_writer inner(outer, field);
            fill(inner);
        }
        compressed.write(bytes);
    }

    /// The whole id where the module's file was found; the report has its first 16 bytes.
    std::string buildId(ModuleId id) const {
        const ModuleSymbols& symbols = source.symbols().module(id);
        const ModuleGuid& guid = source.frames().module(id).guid;
        if (!symbols.file.empty()) {
            const std::optional<ElfIdentity> identity = identify(symbols.file);
            if (identity && identity->matches(guid)) {
                return identity->text();
            }
        }
        return guid == nilGuid ? std::string() : buildIdText(guid);
    }

    void writeMappings() {
        const FrameTable& frames = source.frames();
        std::vector<std::uint64_t> ends(frames.moduleCount());
        std::vector<bool> hasNames(frames.moduleCount(), true);
        for (FrameId frame = 1; frame < frames.size(); ++frame) {
            const auto [module, offset] = frames.frame(frame);
            ends[module] = std::max(ends[module], offset);
            if (source.symbols().name(frame).source != NameSource::debugInformation) {
                hasNames[module] = false;
            }
        }
        starts.assign(frames.moduleCount(), 0);
        std::uint64_t start = firstRange;
        for (ModuleId id = 1; id < frames.moduleCount(); ++id) {
            constexpr std::uint64_t highest = std::numeric_limits<std::uint64_t>::max() / 2;
            const std::uint64_t size =
                (std::min(ends[id], highest) / rangeAlignment + 1) * rangeAlignment;
            // Offsets that no module can have must not overlap with the ranges of others.
            starts[id] = start < highest ? start : 0;
            message(profile_field::mapping, [&](protozero::pbf_writer& mapping) {
                mapping.add_uint64(mapping_field::id, id);
                mapping.add_uint64(mapping_field::memoryStart, starts[id]);
                mapping.add_uint64(mapping_field::memoryLimit, starts[id] + size);
                mapping.add_int64(mapping_field::fileName, text(frames.module(id).fileName));
                mapping.add_int64(mapping_field::buildId, text(buildId(id)));
                mapping.add_bool(mapping_field::hasFunctions, hasNames[id]);
                mapping.add_bool(mapping_field::hasFileNames, hasNames[id]);
                mapping.add_bool(mapping_field::hasLineNumbers, hasNames[id]);
                mapping.add_bool(mapping_field::hasInlineFrames, hasNames[id]);
            });
            start = starts[id] + size;
        }
    }

    void addLine(protozero::pbf_writer& location, std::string_view name, std::string_view file,
                 std::uint32_t line) {
        const std::pair key(text(name), text(file));
        const auto [known, isNew] = functionIds.try_emplace(
            std::to_string(key.first) + '/' + std::to_string(key.second), functionIds.size() + 1);
        const std::uint64_t id = known->second;
        protozero::pbf_writer entry(location, location_field::line);
        entry.add_uint64(line_field::functionId, id);
        entry.add_int64(line_field::line, line);
        if (isNew) {
            message(profile_field::function, [&](protozero::pbf_writer& function) {
                function.add_uint64(function_field::id, id);
                function.add_int64(function_field::name, key.first);
                function.add_int64(function_field::systemName, key.first);
                function.add_int64(function_field::fileName, key.second);
            });
        }
    }

    void writeLocation(FrameId frame) {
        message(profile_field::location, [&](protozero::pbf_writer& location) {
            location.add_uint64(location_field::id, locationId(frame));
            if (frame == FrameTable::unknown) {
                addLine(location, unknownAddress, {}, 0);
                return;
            }
            const auto [module, offset] = source.frames().frame(frame);
            location.add_uint64(location_field::mappingId, module);
            // The call, not the address behind it.
            location.add_uint64(location_field::address,
                                starts[module] + (offset > 0 ? offset - 1 : 0));
            for (const SourcePlace& place : source.symbols().name(frame).places) {
                addLine(location, place.function, place.file, place.line);
            }
        });
    }

    void writeSamples(const ThreadProfile& thread) {
        const std::vector<std::uint64_t> own = ownSamples(thread);
        const std::int64_t nameKey = text("thread");
        const std::int64_t idKey = text("thread_id");
        const std::int64_t name = text(threadLabel(thread));
        const auto writeSample = [&](const std::vector<std::uint64_t>& path, std::uint64_t weight) {
            message(profile_field::sample, [&](protozero::pbf_writer& sample) {
                sample.add_packed_uint64(sample_field::locationId, path.rbegin(), path.rend());
                const auto value = static_cast<std::int64_t>(weight);
                sample.add_packed_int64(sample_field::value, &value, &value + 1);
                protozero::pbf_writer label(sample, sample_field::label);
                label.add_int64(label_field::key, nameKey);
                label.add_int64(label_field::text, name);
                label.commit();
                protozero::pbf_writer idLabel(sample, sample_field::label);
                idLabel.add_int64(label_field::key, idKey);
                idLabel.add_int64(label_field::number, static_cast<std::int64_t>(thread.id));
            });
        };
        std::vector<std::uint64_t> path;
        std::vector<std::uint32_t> ends;
        for (std::uint32_t index = 0; index < thread.nodes.size(); ++index) {
            while (!ends.empty() && ends.back() <= index) {
                ends.pop_back();
                path.pop_back();
            }
            ends.push_back(thread.nodes[index].end);
            path.push_back(locationId(thread.nodes[index].frame));
            if (own[index] > 0) {
                writeSample(path, own[index]);
            }
        }
        if (own.back() > 0) {
            writeSample({locationId(static_cast<FrameId>(source.frames().size()))}, own.back());
        }
    }

    Source& source;
    GzipOutput compressed;
    std::vector<std::uint64_t> starts;
    std::vector<std::string> texts;
    std::unordered_map<std::string, std::size_t> textIds;
    std::unordered_map<std::string, std::uint64_t> functionIds;
};

}  // namespace

void writePprof(Source& source, std::ostream& output) {
    PprofWriter(source, output).write();
}

}  // namespace ThreadUtilities::companion
