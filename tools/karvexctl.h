/* The karvexctl commands. Each takes its own argv (argv[0] is the command's
 * name), parses its options with getopt_long and returns the exit code. */
#ifndef KARVEX_TOOLS_KARVEXCTL_H
#define KARVEX_TOOLS_KARVEXCTL_H

int CmdList(int argc, char** argv);
int CmdInfo(int argc, char** argv);
int CmdGpio(int argc, char** argv);
int CmdI2c(int argc, char** argv);
int CmdWatch(int argc, char** argv);

/* Sets gToolName to "<parent> <command>" for messages of a subcommand. */
void EnterCommand(const char* command);

#endif
