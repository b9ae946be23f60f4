#include "server/web_server.h"

#include "server/http_listener.h"

#include "filter/filter_json.h"
#include "filter/sql_text.h"
#include "filter/xml_query.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <cstdlib>
#include <random>
#include <stdexcept>

namespace qvx::server {

namespace {

using nlohmann::json;

// A path outside the roots (403) and a second load (409).
class EForbidden : public ERequestError {
public:
  using ERequestError::ERequestError;
};
class EConflict : public ERequestError {
public:
  using ERequestError::ERequestError;
};

constexpr size_t kMaxBody = 1u << 20;
// Each event stream holds a worker while it is open; the rest are kept for requests.
constexpr int kMaxStreams = 8;
constexpr const char* kJson = "application/json; charset=utf-8";
constexpr const char* kCookie = "qvx_token";

void SendJson(httplib::Response& ARes, const json& AValue, int AStatus = 200) {
  ARes.status = AStatus;
  // A damaged log can leave bytes that are not UTF-8 in a text: they are replaced, never
  // a failed page.
  ARes.set_content(AValue.dump(-1, ' ', false, json::error_handler_t::replace), kJson);
}

void SendError(httplib::Response& ARes, int AStatus, const std::string& AMessage) {
  SendJson(ARes, {{"error", AMessage}}, AStatus);
}

json ParseBody(const httplib::Request& AReq) {
  if (AReq.body.empty()) return json::object();
  try {
    return json::parse(AReq.body);
  } catch (const json::parse_error& e) {
    throw ERequestError(std::string("the request body is not JSON: ") + e.what());
  }
}

int64_t IntMember(const json& ABody, const char* AName, int64_t ADefault) {
  const auto it = ABody.find(AName);
  if (it == ABody.end() || it->is_null()) return ADefault;
  if (!it->is_number_integer()) throw ERequestError(std::string("\"") + AName + "\" must be a whole number");
  return it->get<int64_t>();
}

// Equal texts, compared in a time that does not depend on where they differ.
bool SameToken(const std::string& A, const std::string& B) {
  if (A.size() != B.size() || A.empty()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < A.size(); ++i) diff |= static_cast<unsigned char>(A[i] ^ B[i]);
  return diff == 0;
}

std::string CookieValue(const httplib::Request& AReq, const std::string& AName) {
  const std::string cookies = AReq.get_header_value("Cookie");
  size_t pos = 0;
  while (pos < cookies.size()) {
    size_t end = cookies.find(';', pos);
    if (end == std::string::npos) end = cookies.size();
    std::string item = cookies.substr(pos, end - pos);
    pos = end + 1;
    const size_t start = item.find_first_not_of(' ');
    if (start == std::string::npos) continue;
    item.erase(0, start);
    if (item.size() > AName.size() && item.compare(0, AName.size(), AName) == 0 && item[AName.size()] == '=')
      return item.substr(AName.size() + 1);
  }
  return {};
}

// The value of field AName in a form body ("a=1&b=x%20y"), decoded; "" when absent.
std::string FormValue(const std::string& ABody, const std::string& AName) {
  size_t start = 0;
  while (start <= ABody.size()) {
    size_t end = ABody.find('&', start);
    if (end == std::string::npos) end = ABody.size();
    const std::string item = ABody.substr(start, end - start);
    start = end + 1;
    const size_t equals = item.find('=');
    if (item.substr(0, equals) != AName) continue;
    std::string value;
    for (size_t i = equals == std::string::npos ? item.size() : equals + 1; i < item.size(); ++i) {
      const char c = item[i];
      if (c == '+') value.push_back(' ');
      else if (c == '%' && i + 2 < item.size() && std::isxdigit(static_cast<unsigned char>(item[i + 1])) &&
               std::isxdigit(static_cast<unsigned char>(item[i + 2]))) {
        value.push_back(static_cast<char>(std::stoi(item.substr(i + 1, 2), nullptr, 16)));
        i += 2;
      } else value.push_back(c);
    }
    return value;
  }
  return {};
}

TStoreRowFormat ExportFormat(const std::string& AName, std::string& AType, std::string& AExtension) {
  // Downloads go as bytes: a text type would have the library compress the stream with
  // brotli at its slowest level.
  if (AName == "csv") {
    AType = "application/octet-stream";
    AExtension = "csv";
    return TStoreRowFormat::srfCsv;
  }
  if (AName == "jsonl") {
    AType = "application/octet-stream";
    AExtension = "jsonl";
    return TStoreRowFormat::srfJsonl;
  }
  if (AName == "xml") {
    AType = "application/octet-stream";
    AExtension = "xml";
    return TStoreRowFormat::srfXml;
  }
  throw ERequestError("format: use csv, jsonl or xml");
}

// A Host header that names this server: "localhost" or an address literal, with our port.
// A DNS name is refused, whatever it resolves to now: that is how a page of another site
// would reach a server on this machine (DNS rebinding). Served beyond the loopback
// (--bind), the server is reached by its address.
bool HostIsOurs(const std::string& AHost, int APort) {
  const std::string port = ":" + std::to_string(APort);
  if (AHost.size() <= port.size() || AHost.compare(AHost.size() - port.size(), port.size(), port) != 0) return false;
  const std::string name = AHost.substr(0, AHost.size() - port.size());
  if (name == "localhost") return true;
  if (name.size() > 2 && name.front() == '[' && name.back() == ']') // IPv6
    return name.find_first_not_of("0123456789abcdefABCDEF:.", 1) == name.size() - 1;
  int dots = 0;
  for (const char c : name) {
    if (c == '.') ++dots;
    else if (c < '0' || c > '9') return false;
  }
  return dots == 3;
}

} // namespace

uint64_t TEventHub::Publish(const json& AMessage) {
  uint64_t number = 0;
  {
    std::lock_guard lock(FLock);
    number = FNext++;
    FMessages.emplace_back(number, AMessage.dump(-1, ' ', false, json::error_handler_t::replace));
    while (FMessages.size() > 500) FMessages.pop_front();
  }
  FChanged.notify_all();
  return number;
}

bool TEventHub::Next(uint64_t& AAfter, std::string& AMessage, std::chrono::milliseconds AWait) {
  std::unique_lock lock(FLock);
  auto ready = [&] { return FClosed || (!FMessages.empty() && FMessages.back().first > AAfter); };
  if (!FChanged.wait_for(lock, AWait, ready) || FClosed) return false;
  for (const auto& [number, text] : FMessages)
    if (number > AAfter) {
      AAfter = number;
      AMessage = text;
      return true;
    }
  return false;
}

void TEventHub::Close() {
  FClosed = true;
  FChanged.notify_all();
}

std::string RandomToken() {
  std::random_device source; // the system's random source (/dev/urandom, or the OS's own)
  static const char kHex[] = "0123456789abcdef";
  std::string token;
  for (int i = 0; i < 4; ++i) {
    const uint32_t bits = source();
    for (int j = 0; j < 8; ++j) token.push_back(kHex[(bits >> (j * 4)) & 15]);
  }
  return token;
}

TWebServer::TWebServer(TStoreSession& ASession, TServeSettings ASettings)
    : FSession(ASession), FSettings(std::move(ASettings)), FServer(std::make_unique<THttpListener>()) {
  if (FSettings.Token.empty()) FSettings.Token = RandomToken();
  Route();
}

TWebServer::~TWebServer() {
  Stop();
}

std::string TWebServer::Url() const {
  const std::string host = FSettings.Bind.find(':') != std::string::npos ? "[" + FSettings.Bind + "]" : FSettings.Bind;
  return "http://" + host + ":" + std::to_string(FPort) + "/?token=" + FSettings.Token;
}

int TWebServer::Start() {
  const int port = FSettings.Port ? (FServer->bind_to_port(FSettings.Bind, FSettings.Port) ? FSettings.Port : -1)
                                  : FServer->bind_to_any_port(FSettings.Bind);
  if (port <= 0)
    throw std::runtime_error("cannot listen on " + FSettings.Bind + ":" + std::to_string(FSettings.Port) +
                             " (is the port in use?)");
  // The library listens with a backlog of 5: a page opening its connections, or a few
  // scripts at once, overflow it and connections get lost. Listening again on the same
  // socket raises it.
  if (FListenSocket != static_cast<intptr_t>(-1)) ::listen(static_cast<socket_t>(FListenSocket), 128);
  FPort = port;
  FThread = std::thread([this] { FServer->listen_after_bind(); });
  for (int i = 0; i < 500 && !FServer->is_running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  return FPort;
}

void TWebServer::Stop() {
  FCancel = true;
  if (FLoadThread.joinable()) FLoadThread.join();
  FEvents.Close();
  if (FServer) FServer->stop();
  if (FThread.joinable()) FThread.join();
  if (FServer) FServer->Shutdown();
}

std::string TWebServer::InsideRoots(const std::string& APath) const {
  auto under = [](std::filesystem::path ABase, const std::filesystem::path& AInside) {
    if (ABase.has_parent_path() && ABase.filename().empty()) ABase = ABase.parent_path(); // "/logs/"
    const auto [end, at] = std::mismatch(ABase.begin(), ABase.end(), AInside.begin(), AInside.end());
    return end == ABase.end();
  };
  const auto outside = [&] { return EForbidden(APath + ": outside the folders this server was given (--root)"); };
  // The path as written is checked first: whether something exists outside the roots is
  // never told (403 either way).
  std::error_code error;
  const std::filesystem::path written = std::filesystem::absolute(APath, error).lexically_normal();
  std::vector<std::filesystem::path> bases;
  for (const std::string& root : FSettings.Roots) {
    bases.push_back(std::filesystem::absolute(root, error).lexically_normal());
    if (const std::filesystem::path real = std::filesystem::canonical(root, error); !error) bases.push_back(real);
  }
  if (APath.empty() || std::none_of(bases.begin(), bases.end(), [&](const auto& ABase) { return under(ABase, written); }))
    throw outside();
  const std::filesystem::path real = std::filesystem::canonical(APath, error);
  if (error) throw ERequestError(APath + ": no such file or folder");
  // Its real path too: ".." and links that lead out are refused.
  for (const std::string& root : FSettings.Roots) {
    const std::filesystem::path base = std::filesystem::canonical(root, error);
    if (!error && under(base, real)) return real.string();
  }
  throw outside();
}

void TWebServer::StartLoad(TLoadJob AJob) {
  if (!FSettings.Loader) throw ERequestError("this server does not load logs");
  bool idle = false;
  if (!FLoadRunning.compare_exchange_strong(idle, true)) throw EConflict("a load is running already");
  if (FLoadThread.joinable()) FLoadThread.join();
  FCancel = false;
  FLoadEvents = FEvents.Publish({{"type", "loading"}, {"files", AJob.Files}, {"refresh", AJob.Refresh}}) - 1;
  FLoadThread = std::thread([this, job = std::move(AJob)] {
    std::string summary;
    try {
      FSession.RunLoad([&](TEvtLiteAdaptor& AStore) {
        auto last = std::chrono::steady_clock::now() - std::chrono::seconds(1);
        summary = FSettings.Loader(
            AStore, job,
            [&](uint64_t ARead, uint64_t ALoaded, int APercent, const std::string& AEntry) {
              const auto now = std::chrono::steady_clock::now();
              if (now - last < std::chrono::milliseconds(100)) return; // a few a second are enough
              last = now;
              FEvents.Publish({{"type", "progress"}, {"read", ARead}, {"loaded", ALoaded}, {"percent", APercent},
                               {"entry", AEntry}});
            },
            [&](int64_t AId, const std::string& AText) {
              FEvents.Publish({{"type", "alert"}, {"id", AId}, {"text", AText}});
            },
            FCancel);
      });
    } catch (const std::exception& e) {
      summary += std::string("quorvex: ") + e.what() + "\n";
    }
    json lines = json::array();
    size_t start = 0;
    while (start < summary.size()) {
      size_t end = summary.find('\n', start);
      if (end == std::string::npos) end = summary.size();
      if (end > start) lines.push_back(summary.substr(start, end - start));
      start = end + 1;
    }
    FEvents.Publish({{"type", "loaded"}, {"cancelled", FCancel.load()}, {"notices", lines}});
    FLoadRunning = false;
  });
}

void TWebServer::Route() {
  httplib::Server& server = *FServer;
  server.set_payload_max_length(kMaxBody);
  server.set_socket_options([this](socket_t ASocket) {
    // SO_REUSEADDR only, never the library's SO_REUSEPORT: with that, a second server on
    // the same port would start and share the connections with the first one.
    int yes = 1;
    ::setsockopt(ASocket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    FListenSocket = static_cast<intptr_t>(ASocket);
  });
  server.set_default_headers({
      {"Content-Security-Policy", "default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
                                  "connect-src 'self'; object-src 'none'; frame-ancestors 'none'; base-uri 'none'"},
      {"X-Content-Type-Options", "nosniff"},
      {"X-Frame-Options", "DENY"},
      {"Referrer-Policy", "no-referrer"},
      {"Cache-Control", "no-store"},
  });

  server.set_pre_routing_handler([this](const httplib::Request& AReq, httplib::Response& ARes) {
    ++FRequests;
    using THandled = httplib::Server::HandlerResponse;
    if (!HostIsOurs(AReq.get_header_value("Host"), FPort)) {
      SendError(ARes, 403, "the Host header does not name this server");
      return THandled::Handled;
    }
    if (AReq.has_header("Content-Length") &&
        std::strtoull(AReq.get_header_value("Content-Length").c_str(), nullptr, 10) > kMaxBody) {
      SendError(ARes, 400, "the request body is over 1 MB");
      return THandled::Handled;
    }
    std::string bearer = AReq.get_header_value("Authorization");
    bearer = bearer.rfind("Bearer ", 0) == 0 ? bearer.substr(7) : std::string();
    const bool byQuery = SameToken(AReq.get_param_value("token"), FSettings.Token);
    if (!byQuery && !SameToken(CookieValue(AReq, kCookie), FSettings.Token) && !SameToken(bearer, FSettings.Token)) {
      SendError(ARes, 401, "a valid token is needed: open the address that quorvex serve printed");
      return THandled::Handled;
    }
    if (byQuery && AReq.method == "GET" && AReq.path == "/") {
      // The token leaves the address bar for a cookie that scripts cannot read.
      ARes.set_header("Set-Cookie", std::string(kCookie) + "=" + FSettings.Token + "; HttpOnly; SameSite=Strict; Path=/");
      ARes.set_redirect("/", 303);
      return THandled::Handled;
    }
    return THandled::Unhandled;
  });
  server.set_error_handler([](const httplib::Request&, httplib::Response& ARes) {
    if (ARes.status == 413) SendError(ARes, 400, "the request body is over 1 MB");
    else if (ARes.body.empty()) SendError(ARes, ARes.status, ARes.status == 404 ? "no such page or call" : "bad request");
  });

  // Every handler: parse, call the session, answer; a bad request is one line with 400.
  auto api = [](auto AHandler) {
    return [AHandler](const httplib::Request& AReq, httplib::Response& ARes) {
      try {
        AHandler(AReq, ARes);
      } catch (const EForbidden& e) {
        SendError(ARes, 403, e.what());
      } catch (const EConflict& e) {
        SendError(ARes, 409, e.what());
      } catch (const EStoreBusy& e) {
        SendError(ARes, 503, e.what());
      } catch (const ERequestError& e) {
        SendError(ARes, 400, e.what());
      } catch (const ESQLNameError& e) {
        SendError(ARes, 400, e.what());
      } catch (const json::exception& e) {
        SendError(ARes, 400, std::string("the request is not understood: ") + e.what());
      } catch (const std::exception& e) {
        SendError(ARes, 500, e.what());
      }
    };
  };

  // POST bodies are read here whatever their Content-Type: "curl -d" sends JSON as a form,
  // which the library would parse as one, and refuse past 8 KB.
  auto post = [&server](const std::string& APath, httplib::Server::Handler AHandler) {
    server.Post(APath, [AHandler](const httplib::Request& AReq, httplib::Response& ARes,
                                  const httplib::ContentReader& AReader) {
      httplib::Request request = AReq;
      bool over = false;
      const bool complete = AReader([&](const char* AData, size_t ALength) {
        over = request.body.size() + ALength > kMaxBody;
        if (!over) request.body.append(AData, ALength);
        return !over;
      });
      if (!complete) {
        SendError(ARes, 400, over ? "the request body is over 1 MB" : "the request body did not arrive in full");
        return;
      }
      AHandler(request, ARes);
    });
  };

  for (const TPageFile& file : PageFiles()) {
    const std::string path = file.Path == "/index.html" ? "/" : std::string(file.Path);
    server.Get(path, [&file](const httplib::Request& AReq, httplib::Response& ARes) {
      // Compressed once at build time: compressing per request (brotli at its default
      // level) took longer than all else of the first paint.
      // A provider of known length is sent as it is, never compressed again by the library.
      const bool gzipped = AReq.get_header_value("Accept-Encoding").find("gzip") != std::string::npos;
      const std::string_view body = gzipped ? file.Gzipped : file.Body;
      if (gzipped) ARes.set_header("Content-Encoding", "gzip");
      ARes.set_content_provider(body.size(), std::string(file.Type),
                                [body](size_t AOffset, size_t ALength, httplib::DataSink& ASink) {
                                  return ASink.write(body.data() + AOffset, std::min(ALength, body.size() - AOffset));
                                });
    });
  }

  server.Get("/api/info", api([this](const httplib::Request&, httplib::Response& ARes) {
               json info = FSession.Info();
               // A page opened while a load runs follows it from its first message.
               info["loading"] = FLoadRunning.load();
               if (FLoadRunning) info["loadEvents"] = FLoadEvents.load();
               SendJson(ARes, info);
             }));
  post("/api/rows", api([this](const httplib::Request& AReq, httplib::Response& ARes) {
                const json body = ParseBody(AReq);
                SendJson(ARes, FSession.Rows(TViewQuery::FromJson(body), IntMember(body, "offset", 0),
                                             IntMember(body, "count", 100)));
              }));
  post("/api/position", api([this](const httplib::Request& AReq, httplib::Response& ARes) {
                const json body = ParseBody(AReq);
                SendJson(ARes, {{"index", FSession.IndexOf(TViewQuery::FromJson(body), IntMember(body, "id", 0))}});
              }));
  server.Get(R"(/api/event/(-?\d{1,18}))", api([this](const httplib::Request& AReq, httplib::Response& ARes) {
               SendJson(ARes, FSession.Event(std::stoll(AReq.matches[1].str())));
             }));
  server.Get("/api/zones", api([this](const httplib::Request&, httplib::Response& ARes) { SendJson(ARes, FSession.Zones()); }));
  post("/api/zone", api([this](const httplib::Request& AReq, httplib::Response& ARes) {
                const json body = ParseBody(AReq);
                const auto zone = body.find("zone");
                if (zone == body.end() || !zone->is_string()) throw ERequestError("\"zone\" must name a time zone");
                FSession.SetDisplayZone(zone->get<std::string>());
                SendJson(ARes, FSession.Zones());
              }));
  server.Get("/api/distinct", api([this](const httplib::Request& AReq, httplib::Response& ARes) {
               SendJson(ARes, FSession.Distinct(AReq.get_param_value("column")));
             }));
  post("/api/stats", api([this](const httplib::Request& AReq, httplib::Response& ARes) {
                SendJson(ARes, FSession.Statistics(TViewQuery::FromJson(ParseBody(AReq))));
              }));
  post("/api/bookmark", api([this](const httplib::Request& AReq, httplib::Response& ARes) {
                const json body = ParseBody(AReq);
                const auto on = body.find("on");
                if (on == body.end() || !on->is_boolean()) throw ERequestError("\"on\" must be true or false");
                SendJson(ARes, {{"bookmarks", FSession.Bookmark(IntMember(body, "id", 0), on->get<bool>())}});
              }));
  post("/api/filter/xml", api([this](const httplib::Request& AReq, httplib::Response& ARes) {
                const json body = ParseBody(AReq);
                const TViewQuery query = TViewQuery::FromJson(body);
                TXMLQueryBuilder builder;
                const json info = FSession.Info();
                for (const json& log : info["logs"]) builder.EventLogFiles.push_back(log["file"]);
                if (builder.EventLogFiles.empty()) builder.LogNames.push_back("Application");
                const std::vector<std::string> notes = builder.AssignFilter(query.Filter);
                SendJson(ARes, {{"xml", query.Filter.SaveToString()}, {"query", builder.BuildXML()}, {"notes", notes}});
              }));
  post("/api/filter/parse", api([](const httplib::Request& AReq, httplib::Response& ARes) {
                const json body = ParseBody(AReq);
                const auto xml = body.find("xml");
                if (xml == body.end() || !xml->is_string()) throw ERequestError("\"xml\" must be the text of a filter file");
                TEventFilter filter;
                try {
                  filter.LoadFromString(xml->get<std::string>(), "the filter file");
                } catch (const std::exception& e) {
                  throw ERequestError(e.what());
                }
                SendJson(ARes, {{"filter", FilterToJson(filter)}});
              }));
  server.Get("/api/files", api([this](const httplib::Request& AReq, httplib::Response& ARes) {
               json entries = json::array();
               const std::string dir = AReq.get_param_value("dir");
               if (dir.empty()) {
                 for (const std::string& root : FSettings.Roots)
                   entries.push_back({{"name", root}, {"path", InsideRoots(root)}, {"folder", true}});
                 SendJson(ARes, {{"dir", ""}, {"entries", std::move(entries)}});
                 return;
               }
               const std::string real = InsideRoots(dir);
               std::error_code error;
               for (const auto& item : std::filesystem::directory_iterator(real, error)) {
                 if (entries.size() >= 5000) break;
                 const std::string name = item.path().filename().string();
                 std::string lower = name;
                 for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                 const bool folder = item.is_directory(error);
                 const bool log = !folder && (lower.ends_with(".evtx") || lower.ends_with(".evt"));
                 if (item.is_symlink(error)) { // only links that stay inside the roots are shown
                   try {
                     InsideRoots(item.path().string());
                   } catch (const ERequestError&) {
                     continue;
                   }
                 }
                 if (folder || log)
                   entries.push_back({{"name", name}, {"path", item.path().string()}, {"folder", folder},
                                      {"size", folder ? 0 : static_cast<int64_t>(item.file_size(error))}});
               }
               if (error) throw ERequestError(dir + ": " + error.message());
               std::sort(entries.begin(), entries.end(), [](const json& A, const json& B) {
                 return std::make_pair(!A["folder"].get<bool>(), A["name"].get<std::string>()) <
                        std::make_pair(!B["folder"].get<bool>(), B["name"].get<std::string>());
               });
               SendJson(ARes, {{"dir", real}, {"entries", std::move(entries)}});
             }));
  post("/api/load", api([this](const httplib::Request& AReq, httplib::Response& ARes) {
                const json body = ParseBody(AReq);
                const auto files = body.find("files");
                if (files == body.end() || !files->is_array() || files->empty() || files->size() > 1000)
                  throw ERequestError("\"files\" must list the logs to load");
                TLoadJob job;
                for (const json& file : *files) {
                  if (!file.is_string()) throw ERequestError("\"files\" must list paths");
                  const std::string real = InsideRoots(file.get<std::string>());
                  if (!std::filesystem::is_regular_file(real)) throw ERequestError(file.get<std::string>() + ": not a file");
                  job.Files.push_back(real);
                }
                if (const auto scan = body.find("scan"); scan != body.end() && scan->is_boolean()) job.Scan = *scan;
                StartLoad(std::move(job));
                SendJson(ARes, {{"started", true}, {"events", FLoadEvents.load()}}, 202);
              }));
  post("/api/refresh", api([this](const httplib::Request&, httplib::Response& ARes) {
                TLoadJob job;
                job.Refresh = true;
                StartLoad(std::move(job));
                SendJson(ARes, {{"started", true}, {"events", FLoadEvents.load()}}, 202);
              }));
  post("/api/cancel", api([this](const httplib::Request&, httplib::Response& ARes) {
                FCancel = true;
                SendJson(ARes, {{"cancelled", FLoadRunning.load()}});
              }));
  server.Get("/api/events", [this](const httplib::Request& AReq, httplib::Response& ARes) {
    // Server-sent events: progress, the end of a load with its notices, alerts. A client
    // starts after the number "after" (given by /api/load), or, reconnecting, after the
    // number it saw last.
    if (++FStreams > kMaxStreams) {
      --FStreams;
      SendError(ARes, 503, "too many event streams are open (" + std::to_string(kMaxStreams) +
                               "): close other pages of this server");
      return;
    }
    uint64_t after = std::strtoull(AReq.get_param_value("after").c_str(), nullptr, 10);
    if (AReq.has_header("Last-Event-ID")) after = std::strtoull(AReq.get_header_value("Last-Event-ID").c_str(), nullptr, 10);
    ARes.set_header("X-Accel-Buffering", "no");
    ARes.set_chunked_content_provider("text/event-stream", [this, after](size_t, httplib::DataSink& ASink) mutable {
      std::string message;
      std::string chunk;
      if (FEvents.Next(after, message, std::chrono::seconds(10)))
        chunk = "id: " + std::to_string(after) + "\ndata: " + message + "\n\n";
      else if (FEvents.Closed())
        return false;
      else
        chunk = ": still here\n\n";
      return ASink.write(chunk.data(), chunk.size());
    }, [this](bool) { --FStreams; });
  });
  // An export streams the rows of a view as a download. The page sends its view by POST,
  // as a form: a view that picks many names is too long for an address.
  auto exportView = [this](const std::string& AFormat, const std::string& AView, httplib::Response& ARes) {
    std::string type, extension;
    const TStoreRowFormat format = ExportFormat(AFormat, type, extension);
    json view;
    try {
      view = AView.empty() ? json::object() : json::parse(AView);
    } catch (const json::parse_error& e) {
      throw ERequestError(std::string("view: not JSON: ") + e.what());
    }
    const TViewQuery query = TViewQuery::FromJson(view);
    FSession.WhereOf(query); // a bad view fails here, before the download starts
    ARes.set_header("Content-Disposition", "attachment; filename=\"events." + extension + "\"");
    ARes.set_content_provider(type, [this, query, format](size_t, httplib::DataSink& ASink) {
      FSession.Export(query, format, [&](std::string_view APiece) {
        return ASink.is_writable() && ASink.write(APiece.data(), APiece.size());
      });
      ASink.done();
      return true;
    });
  };
  server.Get("/api/export", api([exportView](const httplib::Request& AReq, httplib::Response& ARes) {
               exportView(AReq.get_param_value("format"), AReq.get_param_value("view"), ARes);
             }));
  post("/api/export", api([exportView](const httplib::Request& AReq, httplib::Response& ARes) {
         if (AReq.get_header_value("Content-Type").rfind("application/x-www-form-urlencoded", 0) == 0)
           exportView(FormValue(AReq.body, "format"), FormValue(AReq.body, "view"), ARes);
         else {
           const json body = ParseBody(AReq);
           const auto format = body.find("format");
           const auto view = body.find("view");
           exportView(format != body.end() && format->is_string() ? format->get<std::string>() : "",
                      view != body.end() ? view->dump() : "", ARes);
         }
       }));
}

} // namespace qvx::server
