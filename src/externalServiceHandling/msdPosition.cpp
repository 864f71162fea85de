// The position the minimum set of data carries: the navigation service's
// fix, its direction of travel, whether it can be trusted, and the car's
// positions about 2 s and 4 s before it. One query per MSD, bounded as
// every request to a peer.
#include "common/jsonText.h"
#include "ecallMain/ecallMain.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "externalServiceHandling/serviceRequests.h"
#include "platform/slog.h"

namespace {

// A position in millionths of a degree; a latitude of exactly 0 is the
// navigation service's "no position".
std::optional<msd::GeoPoint> pointOf(const Json::Value& position) {
  const Json::Value latitude = extServ::member(position, "DR_latitude");
  const Json::Value longitude = extServ::member(position, "DR_longitude");
  if (!latitude.isInt() || latitude.asInt() == 0 || !longitude.isInt()) return std::nullopt;
  return msd::GeoPoint{latitude.asInt() / 1e6, longitude.asInt() / 1e6};
}

}  // namespace

msd::Position externalServiceHandling::getMsdPosition() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  Json::Value query(Json::objectValue);
  query["inprop"].append("POS_Position");
  query["inprop"].append("POS_History");
  std::string reply;
  SVCIPC_tError rc = extServ::invokeSync(extServ::navigationService, "JSON_GetProperties", jsonWrite(query), &reply);
  std::lock_guard<std::mutex> lock(mMsdInputsMutex);
  if (rc < 0) {
    scope.sendFormattedError("Unable to get the position for the MSD, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Unable to get the position for the MSD, rc 0x%0X\n", rc);
    // Its age is unknown: never trusted.
    msd::Position last = mLastMsdPosition.value_or(msd::Position{});
    last.trusted = false;
    extServ::reportTimedOut(rc, "MSD position", last.current ? "the last position, not trusted" : "no position");
    return last;
  }
  const Json::Value outprop = extServ::member(extServ::parseObject(reply.c_str()), "outprop");
  const Json::Value now = extServ::member(outprop, "POS_Position");
  msd::Position position;
  position.current = pointOf(now);
  if (position.current) {
    const Json::Value heading = extServ::member(now, "DR_heading");
    if (heading.isInt()) position.heading = heading.asInt();
    position.trusted = extServ::member(now, "DR_trusted") == true;
    const Json::Value history = extServ::member(outprop, "POS_History");
    if (history.isArray() && !history.empty()) position.earlier1 = pointOf(history[0]);
    if (position.earlier1 && history.size() > 1) position.earlier2 = pointOf(history[1]);
  }
  mLastMsdPosition = position;
  return position;
}
