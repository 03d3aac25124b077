// Private declarations of the command-line framework, shared by its own files (command tree,
// configuration lines, built-in commands, management socket) and by their tests. The daemon
// only sees cli.h.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "cli.h"

// The record a handler receives: what the line chose, and where the handler's output goes.
struct cli_cmd {
    int def = -1;                                           // index of the matched definition in registration order
    bool no = false;                                        // the line began with "no"
    bool config = false;                                    // the framework wants configuration lines only
    bool failed = false;                                    // set by cli_client_execmd_fail
    std::vector<std::pair<std::string, std::string>> args;  // token as written, value typed
    std::string *out = nullptr;                             // terminal output; nullptr discards it
    std::vector<std::string> *config_lines = nullptr;       // collected non-default lines
};

// Makes cmd the current command of this thread for cli_printf/c2p_printf, and restores the
// previous one on destruction (so a handler may run another line).
class cli_scope {
  public:
    explicit cli_scope(cli_cmd *cmd);
    ~cli_scope();
    cli_scope(const cli_scope &) = delete;
    cli_scope &operator=(const cli_scope &) = delete;

  private:
    cli_cmd *prev_;
};
cli_cmd *cli_current(void);

// Outcome of matching one line against the registered trees.
struct cli_match {
    int def = -1;  // -1: the line was empty
    bool no = false;
    std::vector<std::pair<std::string, std::string>> args;
};

struct cli_error {
    int offset = -1;   // 0-based character offset of the failing word in the line
    std::string text;  // one line beginning with "%", without a line feed
};

// 0 when the line matches a definition (or is empty); -1 with err filled otherwise.
int cli_match_line(const char *line, cli_match *m, cli_error *err);
// As cli_execute_line, also giving the offset of the failing word (-1 when none).
int cli_execute_line_ex(const char *line, std::string *out, int *err_offset);
// The tokens that may follow a partial line, one per line with their help texts ("<cr>" when
// the line is complete here). 0, or 1 with the error line in out and its offset.
int cli_help_line(const char *line, std::string *out, int *err_offset);
// Keywords that complete the last (possibly empty) word of a partial line, sorted.
void cli_complete_line(const char *line, std::vector<std::string> *candidates);

// Registry access in registration order.
int cli_def_count(void);
cli_handler_t cli_def_handler(int def);
unsigned cli_def_flags(int def);

// Configuration lines of every CLI_F_CONFIG handler in registration order (each handler once).
void cli_collect_config(std::vector<std::string> *lines);
// Rewrites path atomically with text. 0, or -1 with the reason in err.
int cli_config_write(const char *path, const std::string &text, std::string *err);
// Runs every command line of path; a failing line is logged with its number and skipped.
// Returns the number of failed lines; -1 when the file exists but cannot be read.
int cli_config_replay(const char *path);
void cli_run_reload_end_hooks(void);
void cli_config_set_startup_path(const std::string &path);
const std::string &cli_config_startup_path(void);
// True after cli_param_is_change until the configuration is saved.
bool cli_config_changed(void);
void cli_config_mark_saved(void);

// Registers the framework's own commands (once). 0 or -1.
int cli_builtin_register(void);

// Closes the management socket and every connection, and removes the socket file.
void cli_server_stop(void);
// The socket path in use ("" when not listening).
const char *cli_server_path(void);

// Test hooks: forget everything registered.
void cli_tree_reset(void);
void cli_config_reset(void);
void cli_builtin_reset(void);
