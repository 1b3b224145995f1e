// A name lookup that can be walked away from: getaddrinfo blocks as long as the name servers please, so it
// runs on a thread of its own ("zxclouddns"), which outlives its asker if it must and then touches only its
// own memory.
//
// Threads: one asker. Start never blocks.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace zxcloudd {

class CLookup {
 public:
  CLookup() = default;
  ~CLookup();
  CLookup(const CLookup&) = delete;
  CLookup& operator=(const CLookup&) = delete;

  // False: out of descriptors or threads. Descriptor() becomes readable when the answer is there.
  bool Start(const std::string& strHost);
  int Descriptor() const;
  // The addresses as literals, in the system's order; without any, strError says why.
  std::vector<std::string> Take(std::string& strError) const;

 private:
  struct _State;
  std::shared_ptr<_State> m_pState;
};

bool IsIpLiteral(const std::string& strHost);

}  // namespace zxcloudd
