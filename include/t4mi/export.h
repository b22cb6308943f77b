// Marks what libt4mi_client exports. The library is built with hidden
// visibility, so only what carries this mark is part of its ABI.
#pragma once

#define T4MI_CLIENT_API __attribute__((visibility("default")))
