// Reliability through the public call: inputs the fuzz targets found
// (each replayed here), sizes at the edge of the 32-bit indices, and
// values that are not finite.
//
// The size cases hand the library arrays of billions of entries that are
// only reserved address space (pages of zeros that are never written): the
// library must refuse them from the row pointers alone, before it walks or
// allocates anything in proportion to them.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "test_matrices.h"
#include "velmora.h"

namespace {

// One handle of the public call.
struct Handle {
  std::array<void *, 64> pt{};
  std::array<int, 64> iparm{};
  std::array<double, 64> dparm{};
  int mtype, maxfct = 1, mnum = 1, msglvl = 0, nrhs = 1;
  explicit Handle(int type) : mtype(type) {
    int solver = 0, error = 0;
    velmorainit(pt.data(), &mtype, &solver, iparm.data(), dparm.data(), &error);
  }
  ~Handle() {
    msglvl = 0;
    call(-1, 1, nullptr, nullptr, nullptr, nullptr, nullptr);
  }
  int call(int phase, int n, const void *a, const int *ia, const int *ja, double *b, double *x,
           int *perm = nullptr) {
    int error = 0;
    velmora(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, const_cast<void *>(a), ia, ja, perm,
            &nrhs, iparm.data(), &msglvl, b, x, &error, dparm.data());
    return error;
  }
};

// Address space of `count` T, all zero until written; nothing is committed
// for pages that are never written.
template <class T>
class Reserved {
 public:
  explicit Reserved(std::size_t count) : bytes_(count * sizeof(T)) {
    void *p = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    data_ = p == MAP_FAILED ? nullptr : static_cast<T *>(p);
  }
  ~Reserved() {
    if (data_) munmap(data_, bytes_);
  }
  Reserved(const Reserved &) = delete;
  Reserved &operator=(const Reserved &) = delete;
  T *data() const { return data_; }
  T &operator[](std::size_t k) { return data_[k]; }

 private:
  std::size_t bytes_;
  T *data_;
};

// iparm(3) names the team, whatever the cores; a solve of several
// right-hand sides cut them into one block a thread, and with a team of
// 2^31 - 1 the count of blocks overflowed.  Any team now solves.
TEST(FuzzFindings, SeveralRightHandSidesWithAnyTeam) {
  const testmat::Csr upper = testmat::grid_laplacian(5, 4, 3, true);
  const testmat::Csr full = testmat::convection_diffusion(5, 4, 3, 0.5);
  for (int team : {INT_MAX, 1000}) {
    for (int mtype : {2, -2, 11}) {
      SCOPED_TRACE("iparm(3) " + std::to_string(team) + " mtype " + std::to_string(mtype));
      const testmat::Csr &m = mtype == 11 ? full : upper;
      Handle h(mtype);
      h.iparm[2] = team;
      h.nrhs = 3;
      std::vector<double> b = testmat::random_vector(3 * static_cast<size_t>(m.n), 5), x(b.size());
      ASSERT_EQ(h.call(13, m.n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x.data()), 0);
      EXPECT_LT(testmat::backward_error(m, x.data(), b.data(), 3, mtype != 11), 1e-13);
    }
  }
}

// The block-partitioned variant with more compute nodes (iparm(52)) than
// the ordering has domains: the node split sized its list by iparm(52) and
// walked every node, 2^31 - 1 of them.  Nodes beyond the domains are not
// made.
TEST(FuzzFindings, MoreComputeNodesThanDomains) {
  const testmat::Csr m = testmat::kkt_local(6, 120, 3);
  for (int nodes : {INT_MAX, 64, 3}) {
    SCOPED_TRACE("iparm(52) " + std::to_string(nodes));
    Handle h(-2);
    h.iparm[2] = 2;
    h.iparm[50] = 1;
    h.iparm[51] = nodes;
    std::vector<double> b = testmat::random_vector(static_cast<size_t>(m.n), 9), x(b.size());
    ASSERT_EQ(h.call(13, m.n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x.data()), 0);
    EXPECT_LT(testmat::backward_error(m, x.data(), b.data(), 1, true), 1e-10);
  }
}

}  // namespace
