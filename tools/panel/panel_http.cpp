#include "panel_http.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "item_link.h"
#include "panel_assets.h"
#include "panel_fields.h"

namespace {

// Compares without stopping at the first difference, so the time a wrong
// token takes says nothing about the right one.
bool same_secret(const std::string& given, const std::string& secret)
{
    unsigned char diff = given.size() == secret.size() ? 0 : 1;
    for (size_t i = 0; i < given.size(); ++i)
        diff |= static_cast<unsigned char>(given[i] ^ secret[i % secret.size()]);
    return diff == 0;
}

const char TOKEN_COOKIE[] = "t4mi_panel_token";

// The value of cookie `name` in the request, or empty.
std::string cookie(const httplib::Request& req, const std::string& name)
{
    const std::string header = req.get_header_value("Cookie");
    for (size_t at = 0; at < header.size();) {
        const size_t end = std::min(header.find(';', at), header.size());
        size_t start = header.find_first_not_of(' ', at);
        if (start < end && header.compare(start, name.size() + 1, name + "=") == 0)
            return header.substr(start + name.size() + 1, end - start - name.size() - 1);
        at = end + 1;
    }
    return "";
}

enum class credential { none, header, query, cookie };

// How the request carries the token, if it does.
credential authorised(const httplib::Request& req, const std::string& token)
{
    const std::string header = req.get_header_value("Authorization");
    const std::string bearer = "Bearer ";
    if (header.compare(0, bearer.size(), bearer) == 0 && same_secret(header.substr(bearer.size()), token))
        return credential::header;
    if (req.has_param("token") && same_secret(req.get_param_value("token"), token))
        return credential::query;
    if (const std::string c = cookie(req, TOKEN_COOKIE); !c.empty() && same_secret(c, token))
        return credential::cookie;
    return credential::none;
}

bool loopback_host(const std::string& host_header)
{
    std::string host = host_header;
    if (!host.empty() && host[0] == '[')
        host = host.substr(0, host.find(']') + 1);
    else
        host = host.substr(0, host.find(':'));
    return host == "127.0.0.1" || host == "localhost" || host == "[::1]";
}

void send_json(httplib::Response& res, int status, const nlohmann::json& body)
{
    res.status = status;
    res.set_content(body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace), "application/json");
}

void send_error(httplib::Response& res, int status, const std::string& message)
{
    send_json(res, status, {{"error", message}});
}

// A decimal side length in [1, max], or 0.
int side(const httplib::Request& req, const char* name, int fallback, int max)
{
    if (!req.has_param(name))
        return fallback;
    const std::string v = req.get_param_value(name);
    if (v.empty() || v.size() > 5 || v.find_first_not_of("0123456789") != std::string::npos)
        return 0;
    const int n = std::stoi(v);
    return n >= 1 && n <= max ? n : 0;
}

// Commands change the item: they must come from the page's script (a JSON
// body), which a form on another site cannot send without the browser
// asking first, and the panel never answers such a question.
bool json_request(const httplib::Request& req)
{
    return req.get_header_value("Content-Type").rfind("application/json", 0) == 0;
}

} // namespace

void panel_install(httplib::Server& server, item_link& link, const panel_options& options)
{
    server.set_payload_max_length(options.max_body);
    server.set_default_headers({
        {"Content-Security-Policy",
         "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob:; connect-src 'self'; "
         "form-action 'none'; frame-ancestors 'none'; base-uri 'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"Referrer-Policy", "no-referrer"},
        {"Cache-Control", "no-store"},
    });
    server.set_pre_routing_handler([&options](const httplib::Request& req, httplib::Response& res) {
        if (options.loopback_only && !loopback_host(req.get_header_value("Host"))) {
            res.status = 403;
            res.set_content("Forbidden host\n", "text/plain");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (options.token.empty())
            return httplib::Server::HandlerResponse::Unhandled;
        const credential how = authorised(req, options.token);
        if (how == credential::none) {
            res.status = 401;
            res.set_header("WWW-Authenticate", "Bearer");
            res.set_content("Unauthorized\n", "text/plain");
            return httplib::Server::HandlerResponse::Handled;
        }
        // The page opened with ?token= gets it as a cookie, so that its style
        // sheet, script and frames carry it too. Strict: another site's page
        // cannot make the browser send it.
        if (how == credential::query)
            res.set_header("Set-Cookie", std::string(TOKEN_COOKIE) + "=" + options.token +
                                             "; Path=/; HttpOnly; SameSite=Strict");
        return httplib::Server::HandlerResponse::Unhandled;
    });

    for (const panel_asset& a : panel_assets()) {
        server.Get(a.path, [&a](const httplib::Request&, httplib::Response& res) {
            res.set_content(a.content, std::string(a.content_type) + "; charset=utf-8");
        });
    }

    // Browsers ask for it by themselves; nothing to show.
    server.Get("/favicon.ico", [](const httplib::Request&, httplib::Response& res) { res.status = 204; });

    server.Get("/frame.png", [&link](const httplib::Request& req, httplib::Response& res) {
        const int w = side(req, "w", 640, PANEL_MAX_PREVIEW_WIDTH);
        const int h = side(req, "h", 108, PANEL_MAX_PREVIEW_HEIGHT);
        if (w == 0 || h == 0) {
            send_error(res, 400, "size: w must be 1.." + std::to_string(PANEL_MAX_PREVIEW_WIDTH) + " and h 1.." +
                                     std::to_string(PANEL_MAX_PREVIEW_HEIGHT));
            return;
        }
        std::string png, error;
        if (!link.frame_png(w, h, &png, &error)) {
            send_error(res, 502, error);
            return;
        }
        res.set_content(png, "image/png");
    });

    server.Get("/api/stats", [&link](const httplib::Request&, httplib::Response& res) {
        std::string json, error;
        if (!link.stats(&json, &error)) {
            send_error(res, 502, error);
            return;
        }
        res.set_content(json, "application/json");
    });

    server.Post("/api/text", [&link](const httplib::Request& req, httplib::Response& res) {
        if (!json_request(req)) {
            send_error(res, 415, "send the form as application/json");
            return;
        }
        const nlohmann::json form = nlohmann::json::parse(req.body, nullptr, false);
        if (form.is_discarded()) {
            send_error(res, 400, "the form is not JSON");
            return;
        }
        std::vector<std::pair<std::string, std::string>> entries;
        std::string error;
        if (!panel_text_entries(form, &entries, &error)) {
            send_error(res, 400, error);
            return;
        }
        if (!link.send_text(entries, &error)) {
            send_error(res, 502, error);
            return;
        }
        send_json(res, 200, {{"sent", entries.size()}});
    });

    server.Post("/api/reload", [&link](const httplib::Request& req, httplib::Response& res) {
        if (!json_request(req)) {
            send_error(res, 415, "send the request as application/json");
            return;
        }
        std::string error;
        if (!link.reload(&error)) {
            send_error(res, 502, error);
            return;
        }
        send_json(res, 200, {{"reloaded", true}});
    });
}
