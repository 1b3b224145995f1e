// The poll exchange: reads the agent's query, writes the envelope that answers it.
// Pure: any thread, no logging.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zxcloudd {

struct _PollQuery {
  std::string strMid;
  std::string strMid2;
  std::vector<int> listBusiness;  // the business numbers whose components the agent has
};

inline constexpr size_t kPollQueryMax = 256u << 10;
inline constexpr size_t kPollBusinessMax = 4096;

// <message> with <mid>, <m2> and <push_msg_query><business_id><id>n</id>...; false when <mid> or
// <push_msg_query> is missing or a limit is passed. A business number that is no number is left out.
bool ParsePollQuery(std::string_view svXml, _PollQuery& query);

struct _PollItem {
  int iPcid = 0;
  int64_t i64Seq = 0;   // becomes the message id
  std::string strText;  // the command, JSON
};

// An envelope without items is a valid answer: the element push_msg_set is there and empty.
std::string WritePollEnvelope(const std::vector<_PollItem>& listItems, int64_t i64NowSec, int iPeriodSec);

}  // namespace zxcloudd
