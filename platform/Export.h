#pragma once

// What a host of the libraries may call. The engine and the POSIX backend are compiled with
// hidden visibility, so that their internals stay out of the dynamic symbol tables: a class or
// object marked PROV_API is part of the interface, and every declaration of a contract header
// (between its "visibility push(default)" and "pop") is as well.
#define PROV_API __attribute__((visibility("default")))
