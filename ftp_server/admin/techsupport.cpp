// The tech-support hook: on request the collector receives the running line, the server
// information report and the memory table, every piece indented by two blanks.
#include "admin/techsupport.h"

#include <cstdarg>

#include "base/ftpd.h"
#include "admin/admin.h"
#include "tech.h"

int ftpd_tech_init(struct zq_thread_master *master) {
    if (master == nullptr) return -1;
    return tech_reg_service_callback("app#ftp_server", master, _ftpd_tech_hook);
}

int _ftpd_tech_hook(int kind, void *arg) {
    (void)arg;
    if (kind != 0 && kind != 1) return 0;  // other requests get no output and no completion
    _ftpd_tech_detail();
    tech_module_msg_deal_completion();
    return 0;
}

void _ftpd_tech_detail(void) {
    ftpd_tech_printf("ftp server is running\n");
    dump_ftp_server_information(ftpd_tech_printf);
    ftpd_mem_dump(ftpd_tech_printf);
}

int ftpd_tech_printf(const char *fmt, ...) {
    char buf[FTP_BUF_SIZE];
    va_list ap;
    va_start(ap, fmt);
    (void)ftpd_vsnprintf(buf, sizeof buf, fmt, ap);  // longer output is cut
    va_end(ap);
    tech_module_msg_output("  %s", buf);
    return 0;
}
