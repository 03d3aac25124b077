// HELP, SYST, STAT without a path, FEAT, OPTS and NOOP: the command table's handlers.
#pragma once

struct ftp_session;

bool command_help(ftp_session &s);
bool command_syst(ftp_session &s);
bool command_stat(ftp_session &s);
bool command_noop(ftp_session &s);
bool command_feat(ftp_session &s);
bool command_opts(ftp_session &s);
// SITE: carries out the SITE command its argument names; SITE HELP.
bool command_site(ftp_session &s);
bool site_help(ftp_session &s);
