// Command-line framework: command trees registered by the daemon, the management socket that
// ftps-cli talks to, configuration-line collection, the saved configuration and its replay.
//
// Syntax of a command definition, tokens separated by one blank:
//   word          keyword (matched by any unambiguous prefix)
//   <LO-HI>       decimal number in LO..HI
//   NAME          string argument (upper-case letters, digits, '_' or '-'); one word
//   NAME...       string argument: the rest of the line, inner and trailing blanks kept
//   (a|b|c)       one of several keywords
//   [x] [(a|b)]   optional token or choice
// help[] holds one text per token in order of appearance; a choice gives one text per keyword.
// A keyword ending in ':' (a storage) also matches when its argument follows without a blank
// ("flash:/pub" is "flash: /pub").
#pragma once

#include <cstdarg>
#include <string>

struct zq_thread_master;
struct zq_thread;
struct cli_cmd;

typedef void (*cli_handler_t)(struct cli_cmd *cmd);

#define CLI_F_NO 0x1      // the "no" prefix is accepted (its arguments after the keywords may be left out)
#define CLI_F_CONFIG 0x2  // the handler writes configuration lines when asked (cli_is_config)

struct cli_node_def {
    const char *syntax;
    const char *const *help;
    cli_handler_t handler;
    unsigned flags;
};

// Groups the daemon registers under: "cfg ftp server", "ftp information", "debug ftp server".
int cli_client_init(const char *module, struct zq_thread_master *master);
// Tells the framework the daemon is ready (READY=1 under systemd). 0.
int cli_client_ready(struct zq_thread *task);
// Registers n definitions under a group, in order. 0, or -1 on a malformed definition.
int cli_add_command(const char *group, const struct cli_node_def *defs, int n);
// Hook called after the saved configuration has been replayed.
int cli_add_param_reload_end_hook(void (*hook)(void));
// Debug listing callback: code 1 all on, 2 all off, 3 list (show debugging).
int sys_add_debug(const char *name, void (*callback)(int code));

// Inside a handler (main thread only).
bool cli_is_no(const struct cli_cmd *cmd);
bool cli_is_config(const struct cli_cmd *cmd);  // the framework wants configuration lines only
// The typed value of an argument token ("<1-3600>", "NAME", "PASSWORD...") or, for a keyword,
// its full text when it was given; nullptr when absent.
const char *cli_arg(const struct cli_cmd *cmd, const char *token);
long cli_arg_int(const struct cli_cmd *cmd, const char *token, long fallback);

int cli_printf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int cli_vprintf(const char *fmt, va_list ap);
int cli_flush(void);
// One configuration line; nondefault true puts it into the running and saved configuration.
int c2p_printf(bool nondefault, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void cli_client_execmd_fail(struct cli_cmd *cmd);
// Tells the framework that the configuration changed (the saved lines may need rewriting).
void cli_param_is_change(void);

// Runs one command line as if typed on the terminal; output goes to out (may be nullptr).
// Returns 0 on success, 1 when the command failed or did not parse. Main thread only.
int cli_execute_line(const char *line, std::string *out);
