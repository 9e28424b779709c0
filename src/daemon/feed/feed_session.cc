#include "daemon/feed/feed_session.h"

#include "daemon/feed/json_fields.h"

namespace ostler {

using namespace JsonFields;

nlohmann::json toJson(const FeedPromptState& v) {
  nlohmann::json j = {{"state", v.state}};
  if (v.percent) j["percent"] = *v.percent;
  if (v.estimate_seconds) j["estimate_seconds"] = *v.estimate_seconds;
  return j;
}

nlohmann::json toJson(const FeedNudgeState& v) {
  return {{"state", v.state}, {"seconds_remaining", v.seconds_remaining}};
}

nlohmann::json toJson(const FeedSession& v) {
  nlohmann::json j = {{"sessionId", v.sessionId},
                      {"project", v.project},
                      {"context_tokens", v.context_tokens},
                      {"temperature", v.temperature},
                      {"rewarm_usd", v.rewarm_usd},
                      {"fresh_usd", v.fresh_usd},
                      {"last_activity", v.last_activity},
                      {"active_dispatches", v.active_dispatches}};
  if (v.prompt_state) j["prompt_state"] = toJson(*v.prompt_state);
  if (v.nudge_state) j["nudge_state"] = toJson(*v.nudge_state);
  return j;
}

nlohmann::json toJson(const FeedMediaLoopActive& v) {
  return {{"sessionId", v.sessionId},
          {"project", v.project},
          {"images", v.images},
          {"usd_so_far", v.usd_so_far},
          {"tokens_so_far", v.tokens_so_far}};
}

FeedPromptState feedPromptStateFromJson(const nlohmann::json& j) {
  object(j, "prompt_state");
  return {requireString(j, "state"), optionalInt(j, "percent"), optionalInt(j, "estimate_seconds")};
}

FeedNudgeState feedNudgeStateFromJson(const nlohmann::json& j) {
  object(j, "nudge_state");
  return {requireString(j, "state"), requireInt(j, "seconds_remaining")};
}

FeedSession feedSessionFromJson(const nlohmann::json& j) {
  object(j, "FeedSession");
  FeedSession s;
  s.sessionId = requireString(j, "sessionId");
  s.project = requireString(j, "project");
  s.context_tokens = requireInt(j, "context_tokens");
  s.temperature = requireString(j, "temperature");
  s.rewarm_usd = requireDouble(j, "rewarm_usd");
  s.fresh_usd = requireDouble(j, "fresh_usd");
  s.last_activity = requireString(j, "last_activity");
  s.active_dispatches = requireInt(j, "active_dispatches");
  if (const auto* p = find(j, "prompt_state")) s.prompt_state = feedPromptStateFromJson(*p);
  if (const auto* n = find(j, "nudge_state")) s.nudge_state = feedNudgeStateFromJson(*n);
  return s;
}

FeedMediaLoopActive feedMediaLoopActiveFromJson(const nlohmann::json& j) {
  object(j, "FeedMediaLoopActive");
  FeedMediaLoopActive m;
  m.sessionId = requireString(j, "sessionId");
  m.project = requireString(j, "project");
  m.images = requireInt(j, "images");
  m.usd_so_far = requireDouble(j, "usd_so_far");
  m.tokens_so_far = optionalInt(j, "tokens_so_far").value_or(0);
  return m;
}

}  // namespace ostler
