// mp4kit: record, inspect and remux MP4/QuickTime files from the command line.
#include "commands.h"

#include <cstdio>
#include <cstring>

namespace {
constexpr int MAX_COMMANDS = 32;
Command commands[MAX_COMMANDS];
int command_count = 0;
} // namespace

CommandRegistrar::CommandRegistrar(const Command &command) {
    if (command_count < MAX_COMMANDS)
        commands[command_count++] = command;
}

static void usage(FILE *out) {
    fprintf(out, "usage: mp4kit COMMAND [ARGS...]\n\ncommands:\n");
    for (int i = 0; i < command_count; i++)
        fprintf(out, "  %s\n", commands[i].usage);
}

int main(int argc, char **argv) {
    if (argc < 2) {
        usage(stderr);
        return 2;
    }
    if (!strcmp(argv[1], "-h") || !strcmp(argv[1], "--help") || !strcmp(argv[1], "help")) {
        usage(stdout);
        return 0;
    }
    for (int i = 0; i < command_count; i++)
        if (!strcmp(argv[1], commands[i].name))
            return commands[i].run(argc - 1, argv + 1);
    fprintf(stderr, "mp4kit: unknown command '%s'\n", argv[1]);
    usage(stderr);
    return 2;
}
