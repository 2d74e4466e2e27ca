// The subcommands of the mp4core tool, one file each. Each takes the
// arguments behind its own name and returns the process exit status.
#pragma once

int RunDump(int argc, char **argv);
int RunSamples(int argc, char **argv);
int RunM4vHeader(int argc, char **argv);
int RunMux(int argc, char **argv);
int RunInfo(int argc, char **argv);
int RunExtract(int argc, char **argv);
int RunIod(int argc, char **argv);
