// The subcommands of the mp4core tool, one file each, and the record that
// describes one. A command's description is the one place for what it
// takes: the parser, its usage line and its --help text all come from it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

// One operand, in the order the command takes them.
struct OperandRow {
    const char *name;  // "FILE"
    const char *help;  // one line
};

// One option. Every option is given as a word of its own; one with a value
// takes the next word.
struct OptionRow {
    const char *name;   // "--track", "-o"
    const char *value;  // name of the value in the help ("ID"), null for a flag
    bool required;
    bool repeatable;    // each occurrence counts, in the order given
    const char *help;   // one line
};

// One option as given on the command line.
struct GivenOption {
    const OptionRow *option;
    const char *value;  // null for a flag
};

// What the parser hands a command: all its operands, and its options in
// the order given.
struct Arguments {
    std::vector<const char *> operands;
    std::vector<GivenOption> options;
};

struct CommandRow {
    const char *name;
    const char *summary;  // one line of `mp4core --help`
    const OperandRow *operands;
    size_t operandCount;  // the command takes exactly these (see anyOperands)
    const OptionRow *options;
    size_t optionCount;
    const char *details;  // what the command prints and how; lines ending in \n
    int (*run)(const Arguments &arguments);
    bool anyOperands = false;  // the one operand may be given any number of times, or not at all
};

template <size_t N>
constexpr size_t CountOf(const OperandRow (&)[N]) { return N; }
template <size_t N>
constexpr size_t CountOf(const OptionRow (&)[N]) { return N; }

extern const CommandRow kDumpCommand;
extern const CommandRow kSamplesCommand;
extern const CommandRow kM4vHeaderCommand;
extern const CommandRow kMuxCommand;
extern const CommandRow kInfoCommand;
extern const CommandRow kExtractCommand;
extern const CommandRow kIodCommand;
extern const CommandRow kRemuxCommand;
extern const CommandRow kTagCommand;

// ---- Shared by the commands (cli.cpp) ---------------------------------------

// Runs a command on the words behind its name: its help for -h or --help
// (exit 0), a usage error (exit 2), or what the command returns.
int RunCommand(const CommandRow &command, int argc, char **argv);

// "-h" or "--help".
bool IsHelpWord(const char *word);

// "usage: mp4core NAME ..." with a line end.
void PrintUsageLine(const CommandRow &command, FILE *out);

// A usage error: "mp4core NAME: <message>", then the usage line, on
// standard error. Returns the exit status 2.
int UsageError(const CommandRow &command, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// The value of the last occurrence of an option, or null.
const char *OptionValue(const Arguments &arguments, const char *name);
bool HasOption(const Arguments &arguments, const char *name);

// Whole decimal numbers, the entire word and within range.
bool ParseU32(const char *text, uint32_t *value);
bool ParseI32(const char *text, int32_t *value);
