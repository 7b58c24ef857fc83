// The caller's environment must not choose what runs as the super-user.
#pragma once

// When the process runs as the super-user: a fixed PATH, and no IFS, ENV, BASH_ENV or CDPATH.
void QVK_Framework_SecureEnvironment();
