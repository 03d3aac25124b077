// Login password services: the service-password encryption switch and the type-7 encoding.
#pragma once

// 1 when service-password encryption is on.
int login_is_service_pwd_encrypt_enable(void);
void login_set_service_pwd_encrypt(int on);
// Type-7 encoding of plain into out (capacity outlen, including the NUL); out is empty on failure.
void login_password_encrypt(const char *plain, char *out, int outlen);
// Reverse of the above; out is empty for malformed input.
void login_password_decrypt(const char *encrypted, char *out, int outlen);
