#pragma once

#include <mutex>

#include "media/serve/CheckJob.h"
#include "media/serve/HttpRequest.h"
#include "media/serve/HttpResponse.h"
#include "media/serve/RowAnswers.h"
#include "media/serve/ServeSettings.h"
#include "recorder/card/CardInfo.h"

namespace tarn {

// Answers about the card as a whole: what it is, how full, how well. Any number of threads.
class CardAnswers {
 public:
  // All outlive this.
  CardAnswers(const ServeSettings& settings, RowFollower* follower, RowAnswers* rows)
      : settings_(settings), follower_(follower), rows_(rows) {}

  HttpResponse card(const HttpRequest& request);
  HttpResponse health(const HttpRequest& request);
  HttpResponse check(const HttpRequest& request);
  HttpResponse beginCheck(const HttpRequest& request);
  HttpResponse metrics(const HttpRequest& request);
  void stop() { check_.stop(); }

 private:
  struct Space;

  Space space(std::string* name, std::string* identity);
  TimeSpan holdings(const ServedRows& rows);
  void addChannels(JsonText* json, const ServedRows& rows);
  bool isLive(const ServedRows& rows) const;

  const ServeSettings& settings_;
  RowFollower* follower_;
  RowAnswers* rows_;
  CheckJob check_;
  std::mutex mutex_;
  CardInfo info_;  // guarded by mutex_, as all below
  int64_t readUs_ = -1;
  std::string infoError_;
};

}  // namespace tarn
