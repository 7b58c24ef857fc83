// A caller can start the Launcher with its standard descriptors closed.
#pragma once

// When the process runs as the super-user (really or effectively): descriptors 0 to 2 are made to
// exist, on /dev/null where they were closed, so that no file the Launcher opens takes their place
// and reaches its children as their standard input or output.
void QVK_Framework_OpenStandardDescriptors();
