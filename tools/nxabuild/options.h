// Command line of nxabuild, the developer's build tool.
#pragma once

#include <nxahost/device.h>

#include <string>

// What to do and with which arguments. Paths are absolute once parsed: the
// library runs its commands in the workspace's source directory.
struct BuildOptions {
    enum class Command { Help, Build, Sources, Link };

    Command command = Command::Help;
    std::string workDir = nxahost::kWorkDir;
    unsigned debug = 0;
    // SRC.zip for build, DEST.zip for sources, NAME for link.
    std::string argument;
    bool force = false;
};

// The outcome of reading the command line: run with the options, or end at
// once with `exitStatus` (0 for --help, 2 for bad usage) after printing
// `message` (to standard output for --help, to standard error otherwise).
struct ParsedBuildCommand {
    bool run = false;
    int exitStatus = 0;
    std::string message;
    BuildOptions options;
};

// The usage text, ending with a line feed.
std::string buildUsage();

// Reads argv. Refuses, before anything runs, a SRC, DEST, NAME or work
// directory that the shell would not take as one plain word (blanks, shell
// metacharacters, a leading "-"), and a NAME that is not a plain file name.
ParsedBuildCommand parseBuildCommand(int argc, char* const argv[]);

// Empty when `value` can go to the shell unquoted as one plain word; otherwise
// why not. `what` names the value in the message.
std::string checkShellWord(std::string const& what, std::string const& value);
