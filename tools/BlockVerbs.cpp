#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "BlockView.h"
#include "CommandLine.h"
#include "Files.h"
#include "ObjectName.h"
#include "SharedMemoryBlockReader.h"
#include "SharedMemoryBlockWriter.h"
#include "Signals.h"
#include "Text.h"
#include "Verbs.h"

namespace qel {
namespace {

struct BlockOptions {
    std::string name;
    std::uint64_t size = 0;
    std::string file = kStandardStream;
};

using Bytes = std::vector<unsigned char>;

void RequireBlockName(const std::string& name) {
    RequireOrUsage([&] { RequireObjectName("block", name, kLongestBlockName); });
}

/// A block is filled when it is made, so one that the machine has no memory for ends the process.
void RequireBlockSize(std::uint64_t size) {
    const auto memory = static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) *
                        static_cast<std::uint64_t>(sysconf(_SC_PAGE_SIZE));
    if (size == 0) {
        throw UsageError("the size of a block must not be 0");
    }
    if (size > memory) {
        throw UsageError(
            fmt::format("a block of {} bytes does not fit in this machine's memory", size));
    }
}

/// All of the input, but no more than one byte beyond `limit`.
Bytes ContentOf(const InputFile& input, std::uint64_t limit, const StopPredicate& stop) {
    constexpr std::uint64_t kChunk = 1U << 16U;
    Bytes content;
    for (std::size_t had = 0, want = 1; want > 0; had = content.size()) {
        want = std::min(kChunk, limit + 1 - had);
        content.resize(had + want);
        const std::size_t got = input.Read({content.data() + had, want}, stop);
        content.resize(had + got);
        if (got < want) {
            break;
        }
    }
    return content;
}

/// The block then holds `content` and, up to its end, zeros.
void Replace(SharedMemoryBlockWriterIF& block, const Bytes& content) {
    block.LockForWrite();
    unsigned char* const data = block.GetDataForWrite();
    std::fill(std::copy(content.begin(), content.end(), data), data + block.Size(), '\0');
    block.UnlockForWrite();
}

Bytes CopyOf(SharedMemoryBlockReaderIF& block) {
    Bytes content(block.Size());
    block.Lock();
    std::copy_n(block.GetData(), content.size(), content.data());
    block.Unlock();
    return content;
}

/// A creator that cannot be looked into cannot be attached to: its block would be replaced.
void RequireNoHiddenCreator(const std::string& name) {
    const auto block = LookAtBlock(name, ProcessSurvey::Take());
    if (block && block->record && block->creator == BlockCreator::Hidden) {
        throw std::runtime_error(
            fmt::format("block {}: its creator may not be looked into by this user", name));
    }
}

/// If that cannot be told, the block is rather held than lost.
bool IsCreatedHere(const std::string& name) {
    try {
        const auto block = LookAtBlock(name, ProcessSurvey::Take());
        return block && block->record && block->record->pid == getpid();
    } catch (const std::runtime_error&) {
        return true;
    }
}

/// What the library throws does not name the block.
template <typename Block, typename... Size>
std::unique_ptr<Block> Opened(const std::string& name, Size... size) {
    try {
        return std::make_unique<Block>(name, size...);
    } catch (const std::runtime_error& reason) {
        throw std::runtime_error(fmt::format("block {}: {}", name, reason.what()));
    }
}

int WriteContent(const BlockOptions& options, const Bytes& content) {
    const auto block = Opened<SharedMemoryBlockWriter>(options.name, options.size);
    if (content.size() > block->Size()) {
        throw std::runtime_error(
            fmt::format("block {} is there with {} bytes, and the input has {}", options.name,
                        block->Size(), content.size()));
    }
    Replace(*block, content);
    const bool holds = IsCreatedHere(options.name);
    (void)std::fprintf(stderr, "qev block write: %zu bytes in block %s of %llu%s\n", content.size(),
                       OneLine(options.name).c_str(),
                       static_cast<unsigned long long>(block->Size()),
                       holds ? "; held until Ctrl-C" : "");
    if (holds) {
        Signals::Wait();
    }
    return 0;
}

/// Runs `action`, in which a signal may interrupt the wait for a lock.
template <typename Action>
int UnlessInterrupted(const Action& action) {
    try {
        return action();
    } catch (const std::runtime_error&) {
        if (Signals::Any()) {
            return ExitInterrupted(Signals::First());
        }
        throw;
    }
}

int RunBlockWrite(const BlockOptions& options) {
    RequireBlockName(options.name);
    RequireBlockSize(options.size);
    const InputFile input(options.file);
    Signals::Catch();
    const Bytes content = ContentOf(input, options.size, Signals::Any);
    if (Signals::Any()) {
        return ExitInterrupted(Signals::First());
    }
    if (content.size() > options.size) {
        throw std::runtime_error(fmt::format("{} holds more than the {} bytes of the block",
                                             input.Path(), options.size));
    }
    RequireNoHiddenCreator(options.name);
    return UnlessInterrupted([&] { return WriteContent(options, content); });
}

BlockView ViewOf(const std::string& name) {
    auto block = LookAtBlock(name, ProcessSurvey::Take());
    if (!block) {
        throw std::runtime_error("there is no block " + name);
    }
    return *block;
}

int RunBlockRead(const BlockOptions& options) {
    RequireBlockName(options.name);
    OutputFile output(options.file);
    // To open a block that is not there would make its lock file, or give that another length.
    if (!ViewOf(options.name).record) {
        throw std::runtime_error(
            fmt::format("block {} was never made: its lock file holds no record", options.name));
    }
    Signals::Catch();
    return UnlessInterrupted([&] {
        Bytes content = CopyOf(*Opened<SharedMemoryBlockReader>(options.name));
        output.Begin();
        const bool whole = output.Write({content.data(), content.size()}, Signals::Any);
        return whole ? 0 : ExitInterrupted(Signals::First());
    });
}

int RunBlockShow(const BlockOptions& options) {
    RequireBlockName(options.name);
    Print(TextOf(options.name, ViewOf(options.name)));
    return 0;
}

template <typename Run>
Verb AddBlockVerb(CLI::App& group, const char* verb, const char* help, const Run& run,
                  const std::shared_ptr<BlockOptions>& options) {
    CLI::App* const command = group.add_subcommand(verb, help);
    command->add_option("NAME", options->name, "Name of the block")->required()->option_text(" ");
    return {command, [options, run] { return run(*options); }};
}

Verb AddWrite(CLI::App& group) {
    const auto options = std::make_shared<BlockOptions>();
    Verb verb = AddBlockVerb(group, "write", "Fill a block from standard input or a file",
                             RunBlockWrite, options);
    AddBytesOption(*verb.command, "--size", options->size,
                   "Size of the block, if it is to be made; KiB, MiB and so on allowed")
        ->required()
        ->option_text("BYTES");
    verb.command->add_option("--input", options->file, "What to write; - is standard input")
        ->option_text("FILE [-]");
    verb.command->footer(
        "The block then holds the input and, up to its end, zeros. A block that is there keeps\n"
        "its size, and the command ends at once. Otherwise the command makes it and holds it\n"
        "until Ctrl-C (status 0), because a block can be opened only while its creator lives.\n"
        "Input that does not fit is refused, and nothing is written.\n"
        "\n"
        "Examples:\n"
        "  qev block write settings --size 4096 --input settings.json\n"
        "  date | qev block write settings --size 4096");
    return verb;
}

Verb AddRead(CLI::App& group) {
    const auto options = std::make_shared<BlockOptions>();
    Verb verb =
        AddBlockVerb(group, "read", "Write the content of a block to standard output or a file",
                     RunBlockRead, options);
    verb.command->add_option("--output", options->file, "File to write; - is standard output")
        ->option_text("FILE [-]");
    verb.command->footer(
        "Waits while somebody writes to the block. All of its bytes come out.\n"
        "\n"
        "Examples:\n"
        "  qev block read settings | tr -d '\\0'");
    return verb;
}

Verb AddShow(CLI::App& group) {
    Verb verb = AddBlockVerb(group, "show", "Tell what can be seen of a block from outside",
                             RunBlockShow, std::make_shared<BlockOptions>());
    verb.command->footer(
        "The record by which it is found, whether its creator is alive, its size, whether it is\n"
        "sealed, and who has it open. Takes no lock and changes nothing.\n"
        "\n"
        "Examples:\n"
        "  qev block show settings");
    return verb;
}

}  // namespace

std::vector<Verb> AddBlockVerbs(CLI::App& app) {
    CLI::App* const group = app.add_subcommand("block", "Write, read or look at a memory block");
    group->footer(
        "A block is memory of one process, its creator, that others find through a lock file.\n"
        "\n"
        "Files:\n"
        "  /tmp/NAME_shm.lock   the lock file of the block NAME, with the record by which it is "
        "found");
    group->require_subcommand(1);
    return {AddWrite(*group), AddRead(*group), AddShow(*group)};
}

}  // namespace qel
