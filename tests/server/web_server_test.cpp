// The web server's JSON API through httplib's client on a loopback port: every call, the
// token, the Host check, bad bodies, filter values that hold SQL, and many clients at once.
#include "app/commands.h"
#include "app/demo_log.h"
#include "server/http_listener.h"
#include "server/web_server.h"
#include "view/color_codes.h"
#include "view/rendering_info.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <sqlite3.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

namespace qvx::test {
namespace {

using nlohmann::json;

// A folder of its own for a test, made empty and removed at the end.
struct TScratchFolder {
  explicit TScratchFolder(const std::string& AName)
      : Path(std::filesystem::temp_directory_path() / ("qvx-web-" + AName + "-" + std::to_string(::getpid()))) {
    std::filesystem::remove_all(Path);
    std::filesystem::create_directories(Path);
  }
  ~TScratchFolder() {
    std::error_code error;
    std::filesystem::remove_all(Path, error);
  }
  TScratchFolder(const TScratchFolder&) = delete;
  TScratchFolder& operator=(const TScratchFolder&) = delete;
  std::filesystem::path Path;
};

class WebServer : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    FFolder = std::filesystem::temp_directory_path() / ("qvx-web-" + std::to_string(::getpid()));
    std::filesystem::create_directories(FFolder);
    const std::string log = (FFolder / "demo.evtx").string();
    WriteDemoLog(log);
    app::TStoreOptions options;
    options.Logs = {log};
    options.Store = (FFolder / "demo.db").string();
    options.Quiet = true;
    options.TimeZone = "UTC";
    ASSERT_EQ(app::RunOpen(options, stderr), 0);
    FSession = new server::TStoreSession(options.Store, 0);
    FServer = new server::TWebServer(*FSession, {});
    FServer->Start();
  }
  static void TearDownTestSuite() {
    delete FServer;
    delete FSession;
    std::filesystem::remove_all(FFolder);
  }

  static httplib::Client Client(bool AToken = true) {
    httplib::Client client("127.0.0.1", FServer->Port());
    if (AToken) client.set_bearer_token_auth(FServer->Token().c_str());
    return client;
  }
  static json Post(const std::string& APath, const json& ABody, int AStatus = 200) {
    auto result = Client().Post(APath.c_str(), ABody.dump(), "application/json");
    EXPECT_TRUE(result) << APath;
    if (!result) return {};
    EXPECT_EQ(result->status, AStatus) << APath << ": " << result->body;
    return json::parse(result->body);
  }
  static json Get(const std::string& APath, int AStatus = 200) {
    auto result = Client().Get(APath.c_str());
    EXPECT_TRUE(result) << APath;
    if (!result) return {};
    EXPECT_EQ(result->status, AStatus) << APath << ": " << result->body;
    return json::parse(result->body);
  }

  // Sends ARequest on a socket of its own and gives all that comes back.
  static std::string Raw(const std::string& ARequest) {
    const int sock = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(FServer->Port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    if (::connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::send(sock, ARequest.data(), ARequest.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(ARequest.size())) {
      char buffer[4096];
      ssize_t got;
      while ((got = ::recv(sock, buffer, sizeof buffer, 0)) > 0) answer.append(buffer, static_cast<size_t>(got));
    }
    ::close(sock);
    return answer;
  }

  static inline std::filesystem::path FFolder;
  static inline server::TStoreSession* FSession = nullptr;
  static inline server::TWebServer* FServer = nullptr;
};

TEST_F(WebServer, EveryCallAnswers) {
  const json info = Get("/api/info");
  EXPECT_EQ(info["total"], 300);
  EXPECT_EQ(info["columns"][2]["name"], "EventID");
  ASSERT_EQ(info["logs"].size(), 1u);

  const json page = Post("/api/rows", {{"filter", {{"ids", "4624"}}}, {"sort", "RecordNumber"}, {"offset", 2}, {"count", 3}});
  EXPECT_EQ(page["count"], 84);
  ASSERT_EQ(page["rows"].size(), 3u);
  EXPECT_LT(page["rows"][0]["record"].get<int>(), page["rows"][1]["record"].get<int>());
  for (const json& row : page["rows"]) EXPECT_EQ(row["eventId"], 4624);

  const int64_t id = page["rows"][1]["id"];
  EXPECT_EQ(Post("/api/position", {{"filter", {{"ids", "4624"}}}, {"sort", "RecordNumber"}, {"id", id}})["index"], 3);
  const json event = Get("/api/event/" + std::to_string(id));
  EXPECT_NE(event["xml"].get<std::string>().find("<EventID>4624</EventID>"), std::string::npos);
  EXPECT_FALSE(event["data"].empty());
  EXPECT_EQ(event["data"][0]["name"], "SubjectUserSid");

  const json sources = Get("/api/distinct?column=Source");
  EXPECT_EQ(sources[0]["value"], "Microsoft-Windows-Security-Auditing");
  const json stats = Post("/api/stats", json::object());
  EXPECT_EQ(stats["total"], 300);
  EXPECT_FALSE(stats["overTime"].empty());

  EXPECT_EQ(Post("/api/bookmark", {{"id", id}, {"on", true}})["bookmarks"], 1);
  EXPECT_EQ(Post("/api/rows", {{"bookmarked", true}})["count"], 1);
  EXPECT_EQ(Post("/api/bookmark", {{"id", id}, {"on", false}})["bookmarks"], 0);

  const json xml = Post("/api/filter/xml", {{"filter", {{"ids", "4624"}, {"sources", {{"values", {"a'b"}}}}}}});
  EXPECT_NE(xml["xml"].get<std::string>().find("QVEX_Filter"), std::string::npos);
  EXPECT_NE(xml["query"].get<std::string>().find("file://"), std::string::npos) << xml["query"];
  const json back = Post("/api/filter/parse", {{"xml", xml["xml"]}});
  EXPECT_EQ(back["filter"]["ids"], "4624");
  EXPECT_EQ(back["filter"]["sources"]["values"][0], "a'b");

  auto csv = Client().Get("/api/export?format=csv&view=%7B%22filter%22%3A%7B%22ids%22%3A%224624%22%7D%7D");
  ASSERT_TRUE(csv);
  EXPECT_EQ(csv->status, 200);
  EXPECT_EQ(csv->body.rfind("Id,Time,Type,EventID,", 0), 0u);
  size_t rows = 0;
  for (size_t at = 0; (at = csv->body.find(",Audit Success,4624,", at)) != std::string::npos; ++at) ++rows;
  EXPECT_EQ(rows, 84u);
  EXPECT_EQ(Get("/api/event/999999", 400)["error"], "no event has the id 999999");
}

// A view without an order is in _ID order, whichever index the filter's query uses, and
// the same whether its rows were stepped or its _IDs read at once.
TEST_F(WebServer, ViewsWithoutAnOrderKeepTheLoadOrder) {
  const json view = {{"filter", {{"types", {"error", "audit-failure"}}}}};
  json body = view;
  body["count"] = 1000;
  const json rows = Post("/api/rows", body)["rows"];
  ASSERT_GT(rows.size(), 10u);
  for (size_t i = 1; i < rows.size(); ++i) EXPECT_LT(rows[i - 1]["id"].get<int64_t>(), rows[i]["id"].get<int64_t>());
  json where = view;
  where["id"] = rows.back()["id"];
  EXPECT_EQ(Post("/api/position", where)["index"], rows.size() - 1); // answered from the _IDs read at once
  body["offset"] = 5;
  body["count"] = 1;
  EXPECT_EQ(Post("/api/rows", body)["rows"][0]["id"], rows[5]["id"]);
}

TEST_F(WebServer, RefusesWhatItMustRefuse) {
  auto none = Client(false).Get("/api/info");
  ASSERT_TRUE(none);
  EXPECT_EQ(none->status, 401);
  httplib::Client wrong("127.0.0.1", FServer->Port());
  wrong.set_bearer_token_auth("0123456789abcdef0123456789abcdef");
  EXPECT_EQ(wrong.Get("/api/info")->status, 401);

  const std::string port = ":" + std::to_string(FServer->Port());
  for (const std::string& host : {"attacker.example" + port, "127.0.0.1.nip.io" + port, "127.0.0.1:1" + port,
                                  std::string("localhost"), std::string("127.0.0.1"), "[::1]x" + port})
    EXPECT_EQ(Client().Get("/api/info", {{"Host", host}})->status, 403) << host;
  for (const std::string& host : {"127.0.0.1" + port, "localhost" + port, "[::1]" + port, "192.168.1.20" + port})
    EXPECT_EQ(Client().Get("/api/info", {{"Host", host}})->status, 200) << host;

  auto bad = Client().Post("/api/rows", "{not json", "application/json");
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 400);
  EXPECT_EQ(bad->body.find('\n'), std::string::npos);
  // The answer comes before the body is read, so the request is written by hand: a
  // client that insists on sending all of it meets a closed connection.
  const std::string big = Raw("POST /api/rows HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(FServer->Port()) +
                              "\r\nAuthorization: Bearer " + FServer->Token() +
                              "\r\nConnection: close\r\nContent-Type: application/json\r\nContent-Length: 2000000\r\n\r\n{\"offset\": ");
  EXPECT_EQ(big.rfind("HTTP/1.1 400", 0), 0u) << big;
  EXPECT_NE(big.find("{\"error\":\"the request body is over 1 MB\"}"), std::string::npos) << big;

  EXPECT_EQ(Post("/api/rows", {{"sort", "EventID; DROP TABLE Events"}}, 400)["error"].get<std::string>().rfind("sort: ", 0), 0u);
  EXPECT_EQ(Post("/api/rows", {{"filter", {{"colour", 1}}}}, 400)["error"], "filter: \"colour\" is not a member of a filter");
  EXPECT_EQ(Post("/api/rows", {{"filter", {{"descr", {{"text", "("}, {"regex", true}}}}}}, 400)["error"],
            "filter: \"descr.text\" is not a regular expression that compiles: missing closing parenthesis at offset 1");
  EXPECT_EQ(Get("/api/distinct?column=EvtXML", 400)["error"],
            "distinct values are listed for Source, CategoryName, UserName and Computer");
  // The server still serves.
  EXPECT_EQ(Get("/api/info")["total"], 300);
}

TEST_F(WebServer, FilterValuesHoldingSqlAreData) {
  for (const char* value : {"x') OR ('1'='1", "x' OR 1=1 --", "'; DROP TABLE Events; --"}) {
    EXPECT_EQ(Post("/api/rows", {{"filter", {{"sources", {{"values", {value}}}}}}})["count"], 0) << value;
    EXPECT_EQ(Post("/api/rows", {{"filter", {{"descr", {{"text", value}}}}}})["count"], 0) << value;
    EXPECT_EQ(Post("/api/rows", {{"filter", {{"params", {{{"name", value}, {"op", "equals"}, {"value", value}}}}}}})["count"], 0)
        << value;
  }
  EXPECT_EQ(Post("/api/rows", {{"filter", {{"ids", "1 OR 1=1"}}}}, 400)["error"],
            "filter: \"ids\" must be event IDs and ranges separated by commas, with '!' before the ones to leave "
            "out (4624,4625-4630!4627)");
  EXPECT_EQ(Get("/api/info")["total"], 300);
}

TEST_F(WebServer, TimesShownInAnotherZoneAndFilteredThere) {
  FSession->SetTimeZoneName("UTC"); // as the store was loaded
  FSession->SetZones(
      [](const std::string& AName) -> server::TStoreSession::TShiftAt {
        if (AName == "UTC") return [](double) { return 0; };
        if (AName == "+90") return [](double) { return 90; };
        throw std::invalid_argument("unknown zone " + AName);
      },
      json::array({"UTC", "+90"}));
  const std::string stored = Post("/api/rows", {{"count", 1}})["rows"][0]["time"];
  const json zones = Post("/api/zone", {{"zone", "+90"}});
  EXPECT_EQ(zones["display"], "+90");
  const std::string shown = Post("/api/rows", {{"count", 1}})["rows"][0]["time"];
  double storedDays = 0, shownDays = 0;
  ASSERT_TRUE(ParseDateTimeText(stored, storedDays));
  ASSERT_TRUE(ParseDateTimeText(shown, shownDays));
  EXPECT_NEAR((shownDays - storedDays) * 1440, 90, 0.001) << stored << " / " << shown;
  // A date range typed in the shown zone selects what it selects in the stored one.
  const int64_t since = Post("/api/rows", {{"filter", {{"from", shown}}}})["count"];
  EXPECT_EQ(Post("/api/zone", {{"zone", "Mars/Olympus"}}, 400)["error"], "unknown zone Mars/Olympus");
  Post("/api/zone", {{"zone", ""}});
  EXPECT_EQ(Post("/api/rows", {{"filter", {{"from", stored}}}})["count"], since);
  EXPECT_GE(since, 1);
}

// Connections that send their headers a line at a time, or nothing, and event streams
// past their limit, hold no worker: ordinary requests are still answered at once.
TEST_F(WebServer, AnswersWhileManyConnectionsAreSlowOrIdle) {
  auto connect = [] {
    const int sock = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(FServer->Port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    timeval wait{5, 0};
    ::setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    return sock;
  };
  auto send = [](int ASock, const std::string& AText) { ::send(ASock, AText.data(), AText.size(), MSG_NOSIGNAL); };
  const std::string host = "Host: 127.0.0.1:" + std::to_string(FServer->Port()) + "\r\n";
  std::vector<int> slow, streams;
  for (int i = 0; i < 80; ++i) {
    slow.push_back(connect());
    if (i % 2) send(slow.back(), "GET /api/info HTTP/1.1\r\n" + host);
  }
  // Every event stream up to the limit is answered, the ones past it get 503 at once.
  int open = 0, refused = 0;
  for (int i = 0; i < 12; ++i) {
    streams.push_back(connect());
    send(streams.back(), "GET /api/events HTTP/1.1\r\n" + host + "Authorization: Bearer " + FServer->Token() + "\r\n\r\n");
    char head[64] = {};
    ASSERT_GT(::recv(streams.back(), head, sizeof head - 1, 0), 0) << "stream " << i;
    if (std::string(head).rfind("HTTP/1.1 200", 0) == 0) ++open;
    else if (std::string(head).rfind("HTTP/1.1 503", 0) == 0) ++refused;
  }
  EXPECT_EQ(open, 8);
  EXPECT_EQ(refused, 4);
  for (int round = 0; round < 3; ++round) {
    for (int sock : slow) send(sock, "X-Slow: 1\r\n");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Get("/api/info")["total"], 300);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
  for (int sock : slow) ::close(sock);
  for (int sock : streams) ::close(sock);
}

// A connection that never finishes its headers is closed when its time is up.
TEST(WebServerLimits, SlowHeadersAreCutOff) {
  server::THttpListener listener({.Workers = 2, .HeadTime = std::chrono::milliseconds(300)});
  listener.Get("/", [](const httplib::Request&, httplib::Response& ARes) { ARes.set_content("ok", "text/plain"); });
  const int port = listener.bind_to_any_port("127.0.0.1");
  std::thread serving([&] { listener.listen_after_bind(); });
  const int sock = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::send(sock, "GET / HTTP/1.1\r\n", 16, MSG_NOSIGNAL);
  timeval wait{5, 0};
  ::setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  const auto start = std::chrono::steady_clock::now();
  char byte;
  EXPECT_EQ(::recv(sock, &byte, 1, 0), 0); // closed, with no answer
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  ::close(sock);
  httplib::Client client("127.0.0.1", port);
  auto answer = client.Get("/");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body, "ok");
  listener.stop();
  serving.join();
  listener.Shutdown();
}

// A second server on a port in use does not start: it says so.
TEST_F(WebServer, APortInUseIsRefused) {
  server::TServeSettings settings;
  settings.Port = FServer->Port();
  server::TWebServer second(*FSession, settings);
  try {
    second.Start();
    ADD_FAILURE() << "a second server started on port " << settings.Port;
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()),
              "cannot listen on 127.0.0.1:" + std::to_string(settings.Port) + " (is the port in use?)");
  }
  EXPECT_EQ(Get("/api/info")["total"], 300);
}

// JSON sent as a form ("curl -d" does so) is read as JSON at any size up to the limit.
TEST_F(WebServer, JsonBodiesAreReadWhateverTheirContentType) {
  json sources = json::array();
  for (int i = 0; i < 2000; ++i) sources.push_back("Source number " + std::to_string(i));
  sources.push_back("Microsoft-Windows-Security-Auditing");
  const std::string body = json{{"filter", {{"sources", {{"values", sources}}}}}, {"count", 1}}.dump();
  ASSERT_GT(body.size(), 20000u);
  const json expected = Post("/api/rows", {{"filter", {{"sources", {{"values", {"Microsoft-Windows-Security-Auditing"}}}}}}})["count"];
  for (const char* type : {"application/x-www-form-urlencoded", "text/plain", "application/json"}) {
    auto result = Client().Post("/api/rows", body, type);
    ASSERT_TRUE(result) << type;
    EXPECT_EQ(result->status, 200) << type << ": " << result->body;
    if (result->status == 200) {
      EXPECT_EQ(json::parse(result->body)["count"], expected) << type;
    }
  }
}

// A color code's bold and italic travel with its colour.
TEST_F(WebServer, RowsCarryTheColorCodesFontStyles) {
  TColorCodes codes;
  TColorCode failed;
  failed.EventID = 4625;
  failed.Value = 0x0000FF; // red
  failed.FontStyles = fsBold | fsItalic;
  codes.AddCode(failed);
  TColorCode success;
  success.EventID = 4624;
  success.Value = 0x00FF00;
  codes.AddCode(success);
  FSession->SetColorCodes(std::move(codes));
  const json styled = Post("/api/rows", {{"filter", {{"ids", "4625"}}}, {"count", 1}})["rows"][0];
  EXPECT_EQ(styled["color"], "#ff0000");
  EXPECT_EQ(styled["bold"], true);
  EXPECT_EQ(styled["italic"], true);
  const json plain = Post("/api/rows", {{"filter", {{"ids", "4624"}}}, {"count", 1}})["rows"][0];
  EXPECT_EQ(plain["color"], "#00ff00");
  EXPECT_FALSE(plain.contains("bold"));
  EXPECT_FALSE(plain.contains("italic"));
  FSession->SetColorCodes({});
}

// A view too long for an address is exported by POST, as the page's form sends it.
TEST_F(WebServer, LongViewsAreExportedByPost) {
  json sources = json::array();
  for (int i = 0; i < 400; ++i) sources.push_back("Source-" + std::to_string(i));
  sources.push_back("Microsoft-Windows-Security-Auditing");
  const std::string view = json{{"filter", {{"sources", {{"values", sources}}}, {"ids", "4624"}}}}.dump();
  auto form = Client().Post("/api/export", httplib::Params{{"format", "csv"}, {"view", view}});
  ASSERT_TRUE(form);
  EXPECT_EQ(form->status, 200) << form->body.substr(0, 200);
  size_t rows = 0;
  for (size_t at = 0; (at = form->body.find(",Audit Success,4624,", at)) != std::string::npos; ++at) ++rows;
  EXPECT_EQ(rows, 84u);
  auto asJson = Client().Post("/api/export", json{{"format", "jsonl"}, {"view", json::parse(view)}}.dump(), "application/json");
  ASSERT_TRUE(asJson);
  EXPECT_EQ(asJson->status, 200);
  EXPECT_EQ(std::count(asJson->body.begin(), asJson->body.end(), '\n'), 84);
  auto bad = Client().Post("/api/export", httplib::Params{{"format", "csv"}, {"view", "{\"filter\":{\"ids\":\"x\"}}"}});
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 400);
}

TEST_F(WebServer, ManyClientsPageAtOnce) {
  std::atomic<int> failures{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < 20; ++c)
    clients.emplace_back([c, &failures] {
      httplib::Client client("127.0.0.1", FServer->Port());
      client.set_bearer_token_auth(FServer->Token().c_str());
      client.set_keep_alive(true);
      // Half the clients page a filtered, sorted view, half the whole store.
      const json view = c % 2 ? json{{"filter", {{"types", {"error"}}}}, {"sort", "EventID"}} : json::object();
      for (int offset = 0; offset < 300; offset += 50) {
        json body = view;
        body["offset"] = offset;
        body["count"] = 50;
        auto result = client.Post("/api/rows", body.dump(), "application/json");
        if (!result || result->status != 200) {
          ADD_FAILURE() << "client " << c << " offset " << offset << ": "
                        << (result ? std::to_string(result->status) + " " + result->body : httplib::to_string(result.error()));
          ++failures;
          continue;
        }
        const json page = json::parse(result->body);
        if (page["count"] != (c % 2 ? 7 : 300)) ++failures;
      }
    });
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(failures, 0);
}

} // namespace
} // namespace qvx::test

namespace qvx::test {
namespace {

using nlohmann::json;

std::string Escape(const std::string& AText) {
  std::string out;
  for (const unsigned char c : AText) {
    char hex[4];
    std::snprintf(hex, sizeof hex, "%%%02X", c);
    out += std::isalnum(c) || c == '/' || c == '.' || c == '-' || c == '_' ? std::string(1, static_cast<char>(c)) : hex;
  }
  return out;
}

// Loading from the page: the folders the server was given, nothing outside them, the
// load on its own thread with its events streamed, the store answering after it.
TEST(WebServerLoading, ListsLoadsAndRefusesOutsideTheRoots) {
  const TScratchFolder scratch("load");
  const std::filesystem::path& folder = scratch.Path;
  std::filesystem::create_directories(folder / "logs");
  WriteDemoLog((folder / "first.evtx").string());
  WriteDemoLog((folder / "logs" / "more.evtx").string());
  std::filesystem::create_directory_symlink("/etc", folder / "logs" / "out");
  app::TStoreOptions options;
  options.Logs = {(folder / "first.evtx").string()};
  options.Store = (folder / "s.db").string();
  options.Quiet = true;
  ASSERT_EQ(app::RunOpen(options, stderr), 0);
  // Loads from the page test an alert file: its matches stream as they fire.
  {
    std::ofstream alerts(folder / "alerts.xml");
    alerts << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<AlertPatterns><Alert Source=\"Application Error\" "
              "Id=\"4294967295\" EventType=\"0\" RunProgram=\"0\" ProgramName=\"\"/></AlertPatterns>\n";
  }
  options.Alerts = (folder / "alerts.xml").string();
  {
    server::TStoreSession session(options.Store, 0);
    server::TServeSettings settings;
    settings.Roots = {(folder / "logs").string()};
    settings.Loader = [&](TEvtLiteAdaptor& AStore, const server::TLoadJob& AJob, const server::TLoadProgress& AProgress,
                          const server::TLoadAlert& AAlert, const std::atomic<bool>& ACancel) {
      app::TStoreOptions load = options;
      load.Logs = AJob.Files;
      app::TLoadHooks hooks{AProgress, &ACancel, AAlert};
      std::FILE* notes = std::tmpfile();
      app::LoadIntoOpenStore(load, AStore, AJob.Refresh, hooks, notes);
      std::fclose(notes);
      return std::string("loaded\n");
    };
    server::TWebServer web(session, settings);
    web.Start();
    httplib::Client client("127.0.0.1", web.Port());
    client.set_bearer_token_auth(web.Token().c_str());
    auto get = [&](const std::string& APath) { return client.Get(APath.c_str()); };
    const std::string logs = (folder / "logs").string();

    auto listing = get("/api/files?dir=" + Escape(logs));
    ASSERT_TRUE(listing);
    ASSERT_EQ(listing->status, 200) << listing->body;
    const json entries = json::parse(listing->body)["entries"];
    ASSERT_EQ(entries.size(), 1u) << entries; // the link to /etc is a folder outside: not listed as a log
    EXPECT_EQ(entries[0]["name"], "more.evtx");
    for (const std::string& outside : {logs + "/..", std::string("/etc"), logs + "/out", logs + "/../first.evtx"}) {
      auto refused = get("/api/files?dir=" + Escape(outside));
      ASSERT_TRUE(refused);
      EXPECT_EQ(refused->status, 403) << outside << ": " << refused->body;
    }
    // Whether a path outside the roots exists is not told; inside them it is.
    for (const std::string& outside : {std::string("/no/such/folder"), std::string("/etc/passwd"), logs + "/../nothing"}) {
      auto refused = get("/api/files?dir=" + Escape(outside));
      ASSERT_TRUE(refused);
      EXPECT_EQ(refused->status, 403) << outside << ": " << refused->body;
    }
    auto missing = get("/api/files?dir=" + Escape(logs + "/nothing"));
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->status, 400) << missing->body;
    auto outsideLoad = client.Post("/api/load", json{{"files", {(folder / "first.evtx").string()}}}.dump(), "application/json");
    ASSERT_TRUE(outsideLoad);
    EXPECT_EQ(outsideLoad->status, 403);

    // Distinct values are kept between calls, and forgotten when a load adds rows.
    auto distinct = [&] { return json::parse(get("/api/distinct?column=Source")->body)[0]["count"].get<int64_t>(); };
    const int64_t before = distinct();

    // The event stream, read on a thread of its own until the load's end.
    std::string stream;
    std::thread reader([&] {
      httplib::Client events("127.0.0.1", web.Port());
      events.set_bearer_token_auth(web.Token().c_str());
      events.set_read_timeout(30);
      events.Get("/api/events", [&](const char* AData, size_t ALength) {
        stream.append(AData, ALength);
        return stream.find("\"type\":\"loaded\"") == std::string::npos;
      });
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    auto started = client.Post("/api/load", json{{"files", {logs + "/more.evtx"}}}.dump(), "application/json");
    ASSERT_TRUE(started);
    EXPECT_EQ(started->status, 202) << started->body;
    // The page follows the load's messages from the number given.
    const json begun = json::parse(started->body);
    EXPECT_TRUE(begun["events"].is_number_unsigned()) << begun;
    reader.join();
    std::string followed;
    httplib::Client follower("127.0.0.1", web.Port());
    follower.set_bearer_token_auth(web.Token().c_str());
    follower.Get(("/api/events?after=" + std::to_string(begun["events"].get<uint64_t>())).c_str(),
                 [&](const char* AData, size_t ALength) {
                   followed.append(AData, ALength);
                   return followed.find("\"type\":\"loaded\"") == std::string::npos;
                 });
    EXPECT_EQ(followed.find("data: {\"files\""), followed.find("data: ")) << followed; // "loading" first
    EXPECT_NE(stream.find("\"type\":\"loading\""), std::string::npos) << stream;
    EXPECT_NE(stream.find("\"notices\":[\"loaded\"]"), std::string::npos) << stream;
    EXPECT_NE(stream.find("\"type\":\"alert\""), std::string::npos) << stream;
    EXPECT_NE(stream.find("Application Error 1000"), std::string::npos) << stream;
    int status = 503;
    for (int i = 0; i < 100 && status == 503; ++i) {
      auto info = get("/api/info");
      status = info ? info->status : 0;
      if (status == 200) EXPECT_EQ(json::parse(info->body)["total"], 600);
      else std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(status, 200);
    EXPECT_EQ(distinct(), 2 * before);

    // Twenty clients page while a larger load runs: each page is answered, with the rows
    // or with 503 while the store is being written, never anything else; afterwards all
    // see the new rows.
    WriteDemoLog(logs + "/large.evtx", 60000);
    auto second = client.Post("/api/load", json{{"files", {logs + "/large.evtx"}}}.dump(), "application/json");
    ASSERT_TRUE(second);
    EXPECT_EQ(second->status, 202);
    auto again = client.Post("/api/refresh", "{}", "application/json");
    ASSERT_TRUE(again);
    EXPECT_TRUE(again->status == 409 || again->status == 202) << again->body; // the first may be done already
    std::atomic<int> wrong{0}, busy{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < 20; ++c)
      clients.emplace_back([&] {
        httplib::Client each("127.0.0.1", web.Port());
        each.set_bearer_token_auth(web.Token().c_str());
        for (int page = 0; page < 10; ++page) {
          auto result = each.Post("/api/rows", json{{"offset", page * 40}, {"count", 40}}.dump(), "application/json");
          if (result && result->status == 503) ++busy;
          else if (!result || result->status != 200) ++wrong;
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
      });
    for (std::thread& each : clients) each.join();
    EXPECT_EQ(wrong, 0);
    status = 503;
    for (int i = 0; i < 600 && status == 503; ++i) {
      auto info = get("/api/info");
      status = info ? info->status : 0;
      if (status == 200) EXPECT_EQ(json::parse(info->body)["total"], 60600);
      else std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(status, 200);
    web.Stop();
  }
  std::filesystem::remove_all(folder);
}

} // namespace
} // namespace qvx::test

namespace qvx::test {
namespace {

// A store loaded with Sigma rules: the level of each row, the view of rows with a
// detection of a level, and the detections of an event with their author.
TEST(WebServerDetections, LevelsOfRowsAndTheDetectionsTab) {
  using nlohmann::json;
  const TScratchFolder scratch("sigma");
  const std::filesystem::path& folder = scratch.Path;
  WriteDemoLog((folder / "demo.evtx").string());
  {
    std::ofstream rule(folder / "failed.yml");
    rule << "title: Failed logon\nid: 11111111-2222-3333-4444-555555555555\nauthor: Test Author\nlevel: high\n"
            "logsource:\n  product: windows\n  service: security\ndetection:\n  sel:\n    EventID: 4625\n"
            "  condition: sel\n";
  }
  app::TStoreOptions options;
  options.Logs = {(folder / "demo.evtx").string()};
  options.Store = (folder / "s.db").string();
  options.Rules = {(folder / "failed.yml").string()};
  options.Quiet = true;
  ASSERT_EQ(app::RunOpen(options, stderr), 0);
  {
    server::TStoreSession session(options.Store, 0);
    const json info = session.Info();
    EXPECT_TRUE(info["detections"].get<bool>());
    server::TViewQuery high;
    high.Filter.MinDetectionLevel = dlHigh;
    const json rows = session.Rows(high, 0, 1000);
    server::TViewQuery failed;
    failed.Filter.IDs = "4625";
    EXPECT_EQ(rows["count"], session.Rows(failed, 0, 1)["count"]);
    ASSERT_FALSE(rows["rows"].empty());
    EXPECT_EQ(rows["rows"][0]["level"], 3);
    high.Filter.MinDetectionLevel = dlCritical;
    EXPECT_EQ(session.Rows(high, 0, 1)["count"], 0);
    const json event = session.Event(rows["rows"][0]["id"].get<int64_t>());
    ASSERT_EQ(event["detections"].size(), 1u);
    EXPECT_EQ(event["detections"][0]["author"], "Test Author");
    EXPECT_FALSE(session.Rows({}, 0, 50)["rows"][0].contains("level") &&
                 session.Rows({}, 0, 50)["rows"][0]["eventId"] != 4625);
  }
  std::filesystem::remove_all(folder);
}

// A refresh adds newer events: in the order of a view without a sort (newest first, as
// loaded) they come before the events loaded earlier, and the API reads them by their ids.
TEST(WebServerRefresh, NewerEventsComeFirst) {
  const TScratchFolder scratch("refresh");
  const std::filesystem::path& folder = scratch.Path;
  const std::string log = (folder / "d.evtx").string();
  WriteDemoLog(log, 1000);
  app::TStoreOptions options;
  options.Logs = {log};
  options.Store = (folder / "s.db").string();
  options.Quiet = true;
  ASSERT_EQ(app::RunOpen(options, stderr), 0);
  WriteDemoLog(log, 2000);
  std::FILE* notes = std::tmpfile();
  ASSERT_EQ(app::RunRefresh(options, notes), 0);
  std::fclose(notes);
  {
    server::TStoreSession session(options.Store, 0);
    json rows = session.Rows({}, 0, 1000)["rows"];
    const json second = session.Rows({}, 1000, 1000);
    for (const json& row : second["rows"]) rows.push_back(row);
    ASSERT_EQ(rows.size(), 2000u);
    for (size_t i = 1; i < rows.size(); ++i)
      ASSERT_EQ(rows[i - 1]["record"].get<int64_t>(), rows[i]["record"].get<int64_t>() + 1) << "row " << i;
    EXPECT_EQ(rows[0]["record"], 2000);
    const json newest = session.Event(rows[0]["id"].get<int64_t>());
    EXPECT_NE(newest["xml"].get<std::string>().find("<EventRecordID>2000</EventRecordID>"), std::string::npos);
  }
  // A log gone since: said in words.
  std::filesystem::remove(log);
  notes = std::tmpfile();
  app::RunRefresh(options, notes);
  std::rewind(notes);
  std::string text(4096, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), notes));
  std::fclose(notes);
  EXPECT_NE(text.find("d.evtx: no such file (the log was moved or deleted)"), std::string::npos) << text;
  std::filesystem::remove_all(folder);
}

// A log that the store holds already, named again however its path is written, is
// skipped with a notice: its events are not in the store twice.
TEST(WebServerRefresh, ALogInTheStoreIsNotLoadedTwice) {
  const TScratchFolder scratch("twice");
  const std::filesystem::path& folder = scratch.Path;
  const std::string log = (folder / "d.evtx").string();
  WriteDemoLog(log);
  app::TStoreOptions options;
  options.Logs = {log};
  options.Store = (folder / "s.db").string();
  options.Quiet = true;
  ASSERT_EQ(app::RunOpen(options, stderr), 0);
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(folder);
  options.Logs = {"d.evtx", (folder / "." / "d.evtx").string()};
  options.Append = true;
  std::FILE* notes = std::tmpfile();
  EXPECT_EQ(app::RunOpen(options, notes), 0);
  std::filesystem::current_path(before);
  std::rewind(notes);
  std::string text(4096, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), notes));
  std::fclose(notes);
  EXPECT_NE(text.find("quorvex: d.evtx: already in the store, not loaded again ('quorvex refresh' adds its newer events)"),
            std::string::npos)
      << text;
  {
    server::TStoreSession session(options.Store, 0);
    EXPECT_EQ(session.Info()["total"], 300);
    EXPECT_EQ(session.Info()["logs"].size(), 1u);
  }
  std::filesystem::remove_all(folder);
}

// A damaged store is refused in one line, before anything is written to it.
TEST(WebServerStore, ADamagedStoreIsRefusedUnchanged) {
  const TScratchFolder scratch("damaged");
  const std::filesystem::path& folder = scratch.Path;
  WriteDemoLog((folder / "d.evtx").string(), 3000);
  app::TStoreOptions options;
  options.Logs = {(folder / "d.evtx").string()};
  options.Store = (folder / "s.db").string();
  options.Quiet = true;
  ASSERT_EQ(app::RunOpen(options, stderr), 0);
  auto read = [&] {
    std::ifstream in(options.Store, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  std::string bytes = read();
  const size_t pageSize = (static_cast<unsigned char>(bytes[16]) << 8) | static_cast<unsigned char>(bytes[17]);
  ASSERT_GT(bytes.size() / pageSize, 10u);
  // A page in the middle of the table: the store opens, its pages do not all read.
  for (size_t at = (bytes.size() / pageSize / 2) * pageSize, end = at + pageSize; at < end; ++at) bytes[at] = '\xFF';
  // Opening is refused in one line and the damaged file stays as it was.
  auto refused = [&](const char* AWhat) {
    SCOPED_TRACE(AWhat);
    std::ofstream(options.Store, std::ios::binary | std::ios::trunc) << bytes;
    try {
      server::TStoreSession session(options.Store, 0);
      ADD_FAILURE() << "a damaged store was opened";
    } catch (const std::exception& e) {
      EXPECT_EQ(std::string(e.what()), options.Store + ": not a readable store (database disk image is malformed)");
    }
    EXPECT_EQ(read(), bytes);
  };
  refused("a table page");
  // Its schema page damaged: the first statement meets it.
  for (size_t at = 100; at < pageSize; ++at) bytes[at] = '\xFF';
  refused("the schema page");
  std::filesystem::remove_all(folder);
}

// An event stored with RenderingInfo names (from a catalog): the details carry them, the
// data items read as before.
TEST(WebServerEvent, RenderingInfoNamesComeWithTheDetails) {
  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("qvx-web-names-" + std::to_string(::getpid()));
  std::filesystem::create_directories(folder);
  WriteDemoLog((folder / "demo.evtx").string());
  app::TStoreOptions options;
  options.Logs = {(folder / "demo.evtx").string()};
  options.Store = (folder / "demo.db").string();
  options.Quiet = true;
  ASSERT_EQ(app::RunOpen(options, stderr), 0);
  json before;
  {
    server::TStoreSession session(options.Store, 0);
    before = session.Event(1);
  }
  EXPECT_FALSE(before["fields"].contains("opcodeName"));
  std::string xml = before["xml"];
  TRenderingNames names;
  names.Opcode = "Info";
  names.Keywords = "Audit Success, Other";
  ASSERT_TRUE(AddRenderingInfo(xml, names));
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(options.Store.c_str(), &db), SQLITE_OK);
  sqlite3_stmt* update = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "UPDATE Events SET EvtXML = ?1 WHERE _ID = 1", -1, &update, nullptr), SQLITE_OK);
  sqlite3_bind_text(update, 1, xml.c_str(), -1, SQLITE_TRANSIENT);
  EXPECT_EQ(sqlite3_step(update), SQLITE_DONE);
  sqlite3_finalize(update);
  sqlite3_close(db);
  {
    server::TStoreSession session(options.Store, 0);
    const json after = session.Event(1);
    EXPECT_EQ(after["fields"]["opcodeName"], "Info");
    EXPECT_EQ(after["fields"]["keywordNames"], "Audit Success, Other");
    EXPECT_EQ(after["data"], before["data"]);
    EXPECT_NE(after["xml"].get<std::string>().find("<RenderingInfo>"), std::string::npos);
  }
  std::filesystem::remove_all(folder);
}

} // namespace
} // namespace qvx::test
