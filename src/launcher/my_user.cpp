#include "launcher/my_user.h"

std::uint32_t MyUser = 0;
