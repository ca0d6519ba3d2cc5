// The maker's security library (libvtrsec). Returns 0 for success, non-zero (-1) for failure;
// never throws; thread-safe.
#pragma once

// The device's access token for the cloud, zero-terminated within size bytes. Never logged by the
// library; a URL that a caller builds with it is as secret as the token.
int get_device_token(int size, char *buffer);

// Rewrites the sensitive fields of the configuration file at path in their stored form. Idempotent
// and deterministic: an unchanged configuration must be recognised as such. *changed (may be null)
// tells whether the file was rewritten.
int encode_encrypt_fields_config_file(const char *path, bool *changed);
