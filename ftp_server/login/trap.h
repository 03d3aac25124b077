// The authentication-failure trap.
#pragma once

struct zq_thread_master;

int ftp_trap_init(struct zq_thread_master *master);
void ftp_authen_trap_reg(void);
void ftp_authen_trap_send(void);
