#pragma once

/// Marks what crosses the library's border. Everything else is hidden; whatever meets `any_cast`,
/// `dynamic_cast` or `catch` in another library has to carry it.
#define QUENDO_API __attribute__((visibility("default")))
