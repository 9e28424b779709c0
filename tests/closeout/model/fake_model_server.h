// A model server on 127.0.0.1 for tests: answers what each test scripts, per
// method and path, and records what it was sent. Anything unscripted is a
// 404, as a server without that route gives.
#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/threads.h"

namespace ostler::testing {

class FakeModelServer {
 public:
  struct Reply {
    int status = 200;
    std::string body;
    bool hang = false;  // answer nothing until the server goes (at most 20 s)
  };
  struct Request {
    std::string method, path, body;
  };
  using Script = std::function<Reply(const std::string& body)>;

  FakeModelServer() {
    server_.set_keep_alive_timeout(1);
    const auto handle = [this](const httplib::Request& req, httplib::Response& res) {
      Script script;
      {
        const std::lock_guard lock(mutex_);
        requests_.push_back({req.method, req.path, req.body});
        const auto it = scripts_.find(req.method + " " + req.path);
        if (it != scripts_.end()) script = it->second;
      }
      const Reply reply = script ? script(req.body) : Reply{404, R"({"error":"404 page not found"})"};
      if (reply.hang) {
        std::unique_lock lock(mutex_);
        gone_.wait_for(lock, std::chrono::seconds(20), [this] { return stopping_; });
        return;
      }
      res.status = reply.status;
      res.set_content(reply.body, "application/json");
    };
    server_.Get(".*", handle);
    server_.Post(".*", handle);
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::make_unique<Thread>("fake-model", [this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  ~FakeModelServer() {
    {
      const std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    gone_.notify_all();
    server_.stop();
    thread_.reset();
  }

  [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  void on(const std::string& method, const std::string& path, Script script) {
    const std::lock_guard lock(mutex_);
    scripts_[method + " " + path] = std::move(script);
  }
  void on(const std::string& method, const std::string& path, Reply reply) {
    on(method, path, [reply](const std::string&) { return reply; });
  }

  [[nodiscard]] std::vector<Request> requests() {
    const std::lock_guard lock(mutex_);
    return requests_;
  }
  // The bodies sent to `path`, in order.
  [[nodiscard]] std::vector<std::string> bodiesTo(const std::string& path) {
    std::vector<std::string> out;
    for (const Request& r : requests()) {
      if (r.path == path) out.push_back(r.body);
    }
    return out;
  }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::mutex mutex_;
  std::condition_variable gone_;
  bool stopping_ = false;
  std::map<std::string, Script> scripts_;
  std::vector<Request> requests_;
  std::unique_ptr<Thread> thread_;
};

}  // namespace ostler::testing
