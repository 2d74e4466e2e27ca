// The command line of one subcommand: parsing against its description,
// its usage line and its help text.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "commands.h"

namespace {

// A word that names an option rather than an operand ("-" alone is an operand).
bool LooksLikeOption(const char *word) { return word[0] == '-' && word[1] != '\0'; }

const OptionRow *FindOption(const CommandRow &command, const char *name) {
    for (size_t i = 0; i < command.optionCount; ++i) {
        if (std::strcmp(command.options[i].name, name) == 0) return &command.options[i];
    }
    return nullptr;
}

// "--track ID", or "--od" for a flag.
std::string OptionWithValue(const OptionRow &option) {
    std::string text = option.name;
    if (option.value != nullptr) text += std::string(" ") + option.value;
    return text;
}

void PrintHelp(const CommandRow &command) {
    PrintUsageLine(command, stdout);
    std::printf("\n%s\n", command.summary);
    if (command.details != nullptr) std::printf("%s", command.details);

    // Operands and options in two columns.
    size_t width = std::strlen("-h, --help");
    for (size_t i = 0; i < command.operandCount; ++i)
        width = std::max(width, std::strlen(command.operands[i].name));
    for (size_t i = 0; i < command.optionCount; ++i)
        width = std::max(width, OptionWithValue(command.options[i]).size());
    const int column = int(width) + 2;
    if (command.operandCount > 0) {
        std::printf("\narguments:\n");
        for (size_t i = 0; i < command.operandCount; ++i)
            std::printf("  %-*s%s\n", column, command.operands[i].name, command.operands[i].help);
    }
    std::printf("\noptions:\n");
    for (size_t i = 0; i < command.optionCount; ++i) {
        const OptionRow &option = command.options[i];
        std::printf("  %-*s%s%s\n", column, OptionWithValue(option).c_str(), option.help,
                    option.repeatable ? " (repeatable)" : "");
    }
    std::printf("  %-*s%s\n", column, "-h, --help", "print this help and exit");
}

// Fills `arguments`; on a usage error reports it and gives false.
bool Parse(const CommandRow &command, int argc, char **argv, Arguments *arguments) {
    for (int i = 0; i < argc; ++i) {
        const char *word = argv[i];
        if (!LooksLikeOption(word)) {
            if (arguments->operands.size() == command.operandCount && !command.anyOperands) {
                UsageError(command, "unexpected argument '%s'", word);
                return false;
            }
            arguments->operands.push_back(word);
            continue;
        }
        const OptionRow *option = FindOption(command, word);
        if (option == nullptr) {
            UsageError(command, "unknown option '%s'", word);
            return false;
        }
        const char *value = nullptr;
        if (option->value != nullptr) {
            if (i + 1 >= argc) {
                UsageError(command, "option %s needs a value (%s)", word, option->value);
                return false;
            }
            value = argv[++i];
        }
        arguments->options.push_back({option, value});
    }
    // Something missing: the usage line says what is needed.
    bool complete = arguments->operands.size() == command.operandCount || command.anyOperands;
    for (size_t i = 0; i < command.optionCount; ++i) {
        if (command.options[i].required && !HasOption(*arguments, command.options[i].name))
            complete = false;
    }
    if (!complete) PrintUsageLine(command, stderr);
    return complete;
}

}  // namespace

bool IsHelpWord(const char *word) {
    return std::strcmp(word, "--help") == 0 || std::strcmp(word, "-h") == 0;
}

void PrintUsageLine(const CommandRow &command, FILE *out) {
    std::string line = std::string("usage: mp4core ") + command.name;
    for (size_t i = 0; i < command.operandCount; ++i)
        line += command.anyOperands ? std::string(" [") + command.operands[i].name + "]..." : std::string(" ") + command.operands[i].name;
    for (size_t i = 0; i < command.optionCount; ++i) {
        const OptionRow &option = command.options[i];
        const std::string text = OptionWithValue(option);
        line += option.required ? " " + text : " [" + text + "]";
        if (option.repeatable) line += "...";
    }
    std::fprintf(out, "%s\n", line.c_str());
}

int UsageError(const CommandRow &command, const char *format, ...) {
    std::fflush(stdout);
    std::fprintf(stderr, "mp4core %s: ", command.name);
    va_list list;
    va_start(list, format);
    std::vfprintf(stderr, format, list);
    va_end(list);
    std::fprintf(stderr, "\n");
    PrintUsageLine(command, stderr);
    return 2;
}

int RunCommand(const CommandRow &command, int argc, char **argv) {
    for (int i = 0; i < argc; ++i) {
        if (IsHelpWord(argv[i])) {
            PrintHelp(command);
            return 0;
        }
    }
    Arguments arguments;
    if (!Parse(command, argc, argv, &arguments)) return 2;
    return command.run(arguments);
}

const char *OptionValue(const Arguments &arguments, const char *name) {
    const char *value = nullptr;
    for (const GivenOption &given : arguments.options) {
        if (std::strcmp(given.option->name, name) == 0) value = given.value;
    }
    return value;
}

bool HasOption(const Arguments &arguments, const char *name) {
    for (const GivenOption &given : arguments.options) {
        if (std::strcmp(given.option->name, name) == 0) return true;
    }
    return false;
}

bool ParseU32(const char *text, uint32_t *value) {
    if (text == nullptr || text[0] < '0' || text[0] > '9') return false;
    errno = 0;
    char *end = nullptr;
    const unsigned long long parsed = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || parsed > UINT32_MAX) return false;
    *value = uint32_t(parsed);
    return true;
}

bool ParseI32(const char *text, int32_t *value) {
    if (text == nullptr) return false;
    const char *digits = text[0] == '-' || text[0] == '+' ? text + 1 : text;
    if (digits[0] < '0' || digits[0] > '9') return false;
    errno = 0;
    char *end = nullptr;
    const long long parsed = std::strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || parsed < INT32_MIN || parsed > INT32_MAX) return false;
    *value = int32_t(parsed);
    return true;
}
