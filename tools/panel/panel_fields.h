// The form of the operator panel: which settings it sends with "v4::text",
// and the checks every value passes before it is sent. The page makes the
// same checks (assets/panel.js) so that a bad value never leaves the
// browser; these are the ones that count, since a request can come from
// anywhere.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

// The "v4::text" entries for a form sent as a JSON object of strings (the
// names are the entries' own). Fields that are absent or empty are not
// sent; colours go before opacities, because the item makes a colour opaque
// when it arrives. With "newcontextonly" true the change reaches only outputs
// that start later. False, with `error` saying which field and why, when a
// value is refused: then no entry is made.
bool panel_text_entries(const nlohmann::json& form, std::vector<std::pair<std::string, std::string>>* entries,
                        std::string* error);
