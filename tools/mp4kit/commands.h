// The mp4kit tool's commands. Each command lives in its own file and registers itself here.
#pragma once

struct Command {
    const char *name;
    const char *usage; // one line, shown by `mp4kit` without arguments
    int (*run)(int argc, char **argv); // argv[0] is the command name; returns the exit status
};

// Defined in main.cpp. Declare one static instance per command file.
struct CommandRegistrar {
    explicit CommandRegistrar(const Command &command);
};
