// The TLS settings and the chain-file test that the reverse proxy's
// per-rule virtual hosts are written with.
#pragma once

#include <string>

// The cipher list of an https front end; always 0.
int get_ssl_cipher(std::string* cipher);
// The protocol line of an https front end; always 0.
int get_ssl_protocol(std::string* protocol);
// Whether the certificate chain file "/etc/stunnel/uca.pem" is there.
bool get_uca_file_exist();
