// Removing the package is for the machine's administrators.
#pragma once

// Whether this start may remove the package. A user who started the program through the
// set-user-id executable may only as a member of an administrators' group or as the owner of the
// application folder; a refusal is logged with type 2. The super-user's own start always may.
bool QVK_Framework_MayRemovePackage();
