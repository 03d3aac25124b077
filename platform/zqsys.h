// System information: product and OS names.
#pragma once

// Both return a malloc(3)-allocated text the caller frees with free(3), or nullptr when unknown.
char *zqsys_get_product_name(void);
char *zqsys_get_os_name(void);
