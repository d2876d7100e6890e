#pragma once

#include "Lanix/IpAddr.h"
