// metis5_order.cpp - METIS 5.1 nested dissection with independent domains.
//
// ORDER_METIS5_VELMORA(n, xadj, adjncy, options8, target, perm, invp,
//                      domains, ndom)
//   in:   n >= 0; xadj (n+1), adjncy (xadj[n]-1): symmetric one-based
//         adjacency without diagonal (duplicates and self loops ignored);
//         options8: NULL or 8 ints in the METIS 4 layout; target: domains
//         wanted, a power of two in 1..max(n,1).
//   out:  perm (n), invp (n), one-based inverse permutations;
//         domains (2*target): (first, last) one-based perm positions of each
//         domain, in increasing order, the unused tail -1; *ndom: number of
//         pairs; status as in ordering.h (kOrderNoMemory when METIS or a
//         subgraph allocation runs out of memory).
//   work: allocated here with std::vector (the symmetry test, one subgraph
//         copy per level of the recursion, node lists of each part) and
//         inside METIS; everything is released on return.
//
// Method.  The graph is split recursively by METIS_ComputeVertexSeparator
// down to depth log2(target).  At each split the nodes of part 0 take the
// first positions of the block, then those of part 1, and the separator
// the last ones, in increasing original index.  A subgraph reached at the
// target depth is ordered by METIS_NodeND, and its (first, last) is
// recorded in the pair of its leftmost leaf among the target slots; pairs
// of empty subtrees stay unset and are squeezed out at the end.  Separator
// nodes stay outside every range and after the two parts they split, so
// the nodes of different ranges are never adjacent.
//
// Small cases.  A subgraph of at most two nodes, or without edges, is
// never handed to METIS: at the target depth it is ordered naturally; above
// it an edgeless subgraph is split into two halves with an empty separator,
// and two adjacent nodes become one domain.  A split that leaves both parts
// empty also makes the subgraph one domain.  With target 1 one METIS_NodeND
// call orders the whole graph and the single domain is (1, n).
//
// Options.  options8 = NULL or options8[0] = 0 keeps the METIS 5 defaults
// (METIS_SetDefaultOptions).  Otherwise the METIS 4 slots map to:
//   [1] CType: 1 (random matching) -> METIS_CTYPE_RM, other values (the
//       heavy-edge matchings) -> METIS_CTYPE_SHEM;
//   [2] IType: 1 (edge-based region growing) -> METIS_IPTYPE_EDGE,
//       2 (node-based) -> METIS_IPTYPE_NODE;
//   [3] RType: 1 (two-sided node FM) -> METIS_RTYPE_SEP2SIDED,
//       2 (one-sided node FM) -> METIS_RTYPE_SEP1SIDED;
//   [4] debug level -> METIS_OPTION_DBGLVL;
//   [5] OFlags: bit 1 -> METIS_OPTION_COMPRESS, bit 2 -> METIS_OPTION_CCORDER
//       (both 0 when OFlags is 0);
//   [6] PFactor -> METIS_OPTION_PFACTOR (same meaning: nodes of degree above
//       0.1*PFactor times the average degree are ordered last);
//   [7] NSeps -> METIS_OPTION_NSEPS (when above 0).
// Values outside these ranges leave the METIS default.  The separator calls
// get CType, IType, RType, debug level and NSeps; METIS_NodeND gets all of
// them.  With target above 1 the pruning of dense nodes is done here, on
// the whole graph before the first split: those nodes are placed after
// everything else, and the METIS_NodeND calls on the domains get no
// PFactor.
#include <metis.h>

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "analysis/metis_calls.h"
#include "analysis/ordering.h"
#include "common/allocation.h"

namespace vm {
namespace {

static_assert(sizeof(idx_t) == sizeof(int), "METIS must be built with 32-bit indices");

struct NdContext {
  int n = 0;
  const int *xadj = nullptr;  // one-based input
  const int *adjncy = nullptr;
  int levels = 0;
  int *order = nullptr;  // order[k] = zero-based node at zero-based position k
  int *domains = nullptr;
  scratch_vector<int> local;  // node -> index in the current subgraph, else -1
  scratch_vector<int> seen;   // repetition marker while building a subgraph
  idx_t sep_options[METIS_NOPTIONS];
  idx_t nd_options[METIS_NOPTIONS];
};

int metis_status(int rc) {
  if (rc == METIS_OK) return kOrderOk;
  if (rc == METIS_ERROR_MEMORY) return kOrderNoMemory;
  return kOrderLibraryError;
}

// Fills METIS 5 options from the METIS 4 layout; for_node_nd adds the
// compression, component and pruning settings.
void map_options(const int *o8, bool for_node_nd, idx_t *opt) {
  METIS_SetDefaultOptions(opt);
  opt[METIS_OPTION_NUMBERING] = 0;
  if (o8 == nullptr || o8[0] == 0) return;
  if (o8[1] == 1) {
    opt[METIS_OPTION_CTYPE] = METIS_CTYPE_RM;
  } else if (o8[1] > 1) {
    opt[METIS_OPTION_CTYPE] = METIS_CTYPE_SHEM;
  }
  if (o8[2] == 1) opt[METIS_OPTION_IPTYPE] = METIS_IPTYPE_EDGE;
  if (o8[2] == 2) opt[METIS_OPTION_IPTYPE] = METIS_IPTYPE_NODE;
  if (o8[3] == 1) opt[METIS_OPTION_RTYPE] = METIS_RTYPE_SEP2SIDED;
  if (o8[3] == 2) opt[METIS_OPTION_RTYPE] = METIS_RTYPE_SEP1SIDED;
  if (o8[4] >= 0) opt[METIS_OPTION_DBGLVL] = o8[4];
  if (o8[7] > 0) opt[METIS_OPTION_NSEPS] = o8[7];
  if (!for_node_nd) return;
  if (o8[5] >= 0) {
    opt[METIS_OPTION_COMPRESS] = (o8[5] & 1) != 0 ? 1 : 0;
    opt[METIS_OPTION_CCORDER] = (o8[5] & 2) != 0 ? 1 : 0;
  }
  if (o8[6] >= 0) opt[METIS_OPTION_PFACTOR] = o8[6];
}

// Zero-based subgraph induced by verts, without self loops or repeated
// edges.
void build_subgraph(NdContext &c, const scratch_vector<int> &verts, scratch_vector<idx_t> &sx,
                    scratch_vector<idx_t> &sa) {
  const int m = static_cast<int>(verts.size());
  for (int k = 0; k < m; ++k) {
    c.local[verts[k]] = k;
    c.seen[verts[k]] = -1;
  }
  sx.assign(m + 1, 0);
  sa.clear();
  for (int k = 0; k < m; ++k) {
    const int v = verts[k];
    for (int q = c.xadj[v] - 1; q < c.xadj[v + 1] - 1; ++q) {
      const int u = c.adjncy[q] - 1;
      const int lu = c.local[u];
      if (lu < 0 || lu == k || c.seen[u] == k) continue;
      c.seen[u] = k;
      sa.push_back(lu);
    }
    sx[k + 1] = static_cast<idx_t>(sa.size());
  }
  for (int k = 0; k < m; ++k) c.local[verts[k]] = -1;
}

// Orders verts into positions first.. and records the domain in the slot of
// the leftmost leaf below (depth, slot).
int order_domain(NdContext &c, const scratch_vector<int> &verts, scratch_vector<idx_t> &sx,
                 scratch_vector<idx_t> &sa, int depth, int slot, int first) {
  idx_t m = static_cast<idx_t>(verts.size());
  if (m <= 2 || sx[m] == 0) {
    for (idx_t k = 0; k < m; ++k) c.order[first + k] = verts[k];
  } else {
    scratch_vector<idx_t> lperm(m);
    scratch_vector<idx_t> liperm(m);
    const int rc =
        metis_node_nd(&m, sx.data(), sa.data(), c.nd_options, lperm.data(), liperm.data());
    if (rc != METIS_OK) return metis_status(rc);
    for (idx_t k = 0; k < m; ++k) c.order[first + k] = verts[lperm[k]];
  }
  const int leaf = slot << (c.levels - depth);
  c.domains[2 * leaf] = first + 1;
  c.domains[2 * leaf + 1] = first + static_cast<int>(m);
  return kOrderOk;
}

int dissect(NdContext &c, scratch_vector<int> &verts, int depth, int slot, int first) {
  const int m = static_cast<int>(verts.size());
  if (m == 0) return kOrderOk;
  scratch_vector<idx_t> sx;
  scratch_vector<idx_t> sa;
  build_subgraph(c, verts, sx, sa);
  if (depth == c.levels) return order_domain(c, verts, sx, sa, depth, slot, first);

  scratch_vector<int> part0;
  scratch_vector<int> part1;
  scratch_vector<int> sep;
  if (sx[m] == 0) {
    if (m == 1) return order_domain(c, verts, sx, sa, depth, slot, first);
    part0.assign(verts.begin(), verts.begin() + m / 2);
    part1.assign(verts.begin() + m / 2, verts.end());
  } else {
    if (m <= 2) return order_domain(c, verts, sx, sa, depth, slot, first);
    scratch_vector<idx_t> where(m);
    idx_t nvtxs = m;
    idx_t sepsize = 0;
    const int rc =
        metis_vertex_separator(&nvtxs, sx.data(), sa.data(), c.sep_options, &sepsize, where.data());
    if (rc != METIS_OK) return metis_status(rc);
    for (int k = 0; k < m; ++k) {
      if (where[k] == 0) {
        part0.push_back(verts[k]);
      } else if (where[k] == 1) {
        part1.push_back(verts[k]);
      } else {
        sep.push_back(verts[k]);
      }
    }
    if (part0.empty() && part1.empty()) {
      return order_domain(c, verts, sx, sa, depth, slot, first);
    }
  }
  // Release this level's copies before going down.
  scratch_vector<idx_t>().swap(sx);
  scratch_vector<idx_t>().swap(sa);
  scratch_vector<int>().swap(verts);

  const int n0 = static_cast<int>(part0.size());
  const int n1 = static_cast<int>(part1.size());
  int pos = first + n0 + n1;
  for (int v : sep) c.order[pos++] = v;
  int status = dissect(c, part0, depth + 1, 2 * slot, first);
  if (status != kOrderOk) return status;
  return dissect(c, part1, depth + 1, 2 * slot + 1, first + n0);
}

int run_nested_dissection(NdContext &c, const int *options8, int target) {
  const int n = c.n;
  scratch_vector<int> scratch(
      static_cast<std::size_t>(order_check_graph_work_size(n, c.xadj[n] - 1)));
  int status = order_check_graph(n, c.xadj, c.adjncy, 1, scratch.data());
  if (status != kOrderOk) return status;
  scratch_vector<int>().swap(scratch);

  c.local.assign(n, -1);
  c.seen.assign(n, -1);
  map_options(options8, false, c.sep_options);
  map_options(options8, true, c.nd_options);

  scratch_vector<int> verts;
  verts.reserve(n);
  int tail = n;
  const int pfactor = c.nd_options[METIS_OPTION_PFACTOR];
  if (target > 1 && pfactor > 0) {
    // Dense nodes go after everything else, outside every domain.
    c.nd_options[METIS_OPTION_PFACTOR] = 0;
    const double average = static_cast<double>(c.xadj[n] - 1) / n;
    const double limit = 0.1 * pfactor * average;
    scratch_vector<int> dense;
    for (int i = 0; i < n; ++i) {
      if (c.xadj[i + 1] - c.xadj[i] > limit) {
        dense.push_back(i);
      } else {
        verts.push_back(i);
      }
    }
    if (verts.empty()) {
      verts.swap(dense);
    } else {
      tail = n - static_cast<int>(dense.size());
      for (std::size_t k = 0; k < dense.size(); ++k) c.order[tail + k] = dense[k];
    }
  } else {
    for (int i = 0; i < n; ++i) verts.push_back(i);
  }
  return dissect(c, verts, 0, 0, 0);
}

}  // namespace

void metis_options_for_route2(int n, const int *xadj, int *options8) {
  int maxdeg = 0;
  for (int i = 0; i < n; ++i) {
    const int d = xadj[i + 1] - xadj[i];
    if (d > maxdeg) maxdeg = d;
  }
  static const int kDenseOptions[8] = {1, 3, 1, 2, 0, 1, 200, 1};
  const bool dense = maxdeg >= n / 8;
  for (int k = 0; k < 8; ++k) options8[k] = dense ? kDenseOptions[k] : 0;
}

int ORDER_METIS5_VELMORA(int n, const int *xadj, const int *adjncy, const int *options8, int target,
                         int *perm, int *invp, int *domains, int *ndom) {
  if (ndom != nullptr) *ndom = 0;
  if (n < 0 || ndom == nullptr) return kOrderBadArgument;
  if (target < 1 || (target & (target - 1)) != 0) return kOrderBadArgument;
  if (domains == nullptr) return kOrderBadArgument;
  for (int k = 0; k < 2 * target; ++k) domains[k] = -1;
  if (n == 0) return kOrderOk;
  if (target > n || xadj == nullptr || perm == nullptr || invp == nullptr) {
    return kOrderBadArgument;
  }
  int status = order_check_graph(n, xadj, adjncy, 0, nullptr);
  if (status != kOrderOk) return status;

  NdContext c;
  c.n = n;
  c.xadj = xadj;
  c.adjncy = adjncy;
  c.order = perm;
  c.domains = domains;
  while ((1 << c.levels) < target) ++c.levels;
  try {
    status = run_nested_dissection(c, options8, target);
  } catch (const std::bad_alloc &) {
    status = kOrderNoMemory;
  }
  if (status != kOrderOk) {
    for (int k = 0; k < 2 * target; ++k) domains[k] = -1;
    return status;
  }

  int count = 0;
  for (int d = 0; d < target; ++d) {
    if (domains[2 * d] == -1) continue;
    domains[2 * count] = domains[2 * d];
    domains[2 * count + 1] = domains[2 * d + 1];
    ++count;
  }
  for (int k = 2 * count; k < 2 * target; ++k) domains[k] = -1;
  *ndom = count;
  for (int k = 0; k < n; ++k) invp[perm[k]] = k + 1;
  for (int k = 0; k < n; ++k) perm[k] += 1;
  return kOrderOk;
}

}  // namespace vm
