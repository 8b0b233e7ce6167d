// The command line: options and environment into kiv_options, the usage text, and the
// dispatch of the one action of a run.
#pragma once

#include "front/kiv_options.hpp"

// kiv_parse_command_line's answer when the command line was accepted and the run goes on.
inline constexpr int KIV_PARSE_CONTINUE = -1;
// Result of every refused command line.
inline constexpr int KIV_EXIT_SYNTAX = 1;

// The usage text exactly as `help` prints it.
extern const char kiv_usage_text[];

// Fills *options from argv and the environment (KIV_PRODUCT, KIV_PLATFORM), applying the
// defaults. Returns KIV_PARSE_CONTINUE, or the result to end the run with after its message.
int kiv_parse_command_line(kiv_options *options, int argc, char **argv);
// Prints the three lines of the -v summary on standard output.
void kiv_print_verbose_summary(const kiv_options *options);
// Calls the action named by options->action. Returns its result (1 for an unknown action).
int kiv_dispatch(kiv_options *options);
// The child's whole run: parse, summary, lock, dispatch, unlock. Returns its exit status.
int kiv_run(int argc, char **argv);
