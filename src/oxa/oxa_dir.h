#pragma once

// Small platform helpers shared by the agent (directory creation).

#ifdef __cplusplus
extern "C" {
#endif

// Creates root/dir/ and every missing parent; returns 0 when the directory
// exists afterwards. Either part may be empty (not both).
int oxa_dir_create(const char* root, const char* dir);

// The path walk oxa_dir_create uses, exposed for tests: writes the normalised
// form of `in` into `out` (backslashes to slashes, doubled slashes collapsed,
// "./" dropped, "x/../" folded).
void oxa_path_normalize(const char* in, char* out, int outsize);

#ifdef __cplusplus
}
#endif
