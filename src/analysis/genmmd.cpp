// genmmd.cpp - multiple minimum degree ordering with mass elimination.
//
// ORDER_MMD_VELMORA(n, xadj, adjncy, perm, invp, work, lwork)
// ORDER_MMD_BARRED_VELMORA(n, xadj, adjncy, barred, order_barred, perm, invp,
//                          work, lwork)
//   in:   n >= 0; xadj (n+1), adjncy (xadj[n]-1): symmetric one-based
//         adjacency without diagonal (duplicates and self loops ignored);
//         barred (n, may be NULL): nonzero keeps a node out of the minimum
//         degree choice until all unbarred nodes are numbered; order_barred:
//         1 orders the barred nodes by minimum degree at the end, 0 in
//         increasing original index.
//   out:  perm (n), invp (n), one-based inverse permutations; status
//         kOrderOk, kOrderBadArgument, kOrderShortWork, kOrderNotSymmetric or
//         kOrderInternal (see ordering.h).
//   work: lwork >= order_mmd_work_size(n, nadj) = 17n + iwlen ints, where
//         iwlen = nadj + nadj/4 + 2n + 1 (capped at INT_MAX) holds the
//         quotient graph; nadj = xadj[n]-1.  Nothing is allocated.
//
// Method.  The elimination graph is kept as a quotient graph: an eliminated
// node becomes an element whose list holds the uneliminated nodes it
// reaches; an uneliminated node keeps a list of its elements followed by its
// uneliminated neighbours.  Nodes with identical adjacency are merged into
// supernodes (weight nv), and degrees are exact external degrees: the total
// weight of the nodes reachable through elements and edges, the node's own
// supernode excluded.
//
// One step of the main loop eliminates every node of the minimum degree
// that is not reachable from a node already eliminated in this step
// (multiple elimination, delta 0).  Eliminating p forms the element L_p
// from the lists of p and of the elements adjacent to p, which p absorbs,
// and takes the nodes of L_p out of the degree lists.  At the end of the
// step the lists of the touched nodes are cleaned (absorbed elements and
// eliminated nodes removed, neighbours reachable through the new element
// pruned); a node adjacent to nothing but the new element p is numbered
// with p (mass elimination).  Then every touched node gets the new elements
// in its list, nodes with identical lists are merged (found by hashing),
// and the touched nodes get new degree keys.
//
// Degree keys.  For a touched node the key comes from the weights of L_p
// and of each other element's part outside L_p (one sweep over the element
// lists of L_p's members, as each element keeps its total weight): the
// largest part gives a lower bound of the external degree, the sum of the
// parts an upper bound.  When both agree the key is the exact degree;
// otherwise it is the lower bound, flagged as such, and the exact degree
// is computed from the lists only when the node comes up in the lowest
// degree list; if it is larger the node moves up and the search goes on.
// A node is thus eliminated only at its exact external degree, and only
// when no other node has a smaller one: the order is that of an exact
// multiple minimum degree, while most of the degree work of the nodes
// touched again before they come up is saved.  An element whose members
// all lie in L_p is absorbed by p on the way; it adds nothing to any reach,
// so degrees are unchanged.
//
// Storage.  Lists live in iw.  Cleaning and inserting the new elements
// rewrite a node's list inside its own slot: each new element of a node
// replaces either the pivot in its neighbour list or an element the pivot
// absorbed, so the slot never grows.  A new element goes into the pivot's
// own slot when it fits, otherwise at the end of iw; when the end is
// reached, a compaction moves every live list to the front.  The total
// length of the live lists never exceeds the initial nadj, so the
// compaction always makes room.
//
// Numbering.  Each supernode keeps its members in a circular list.  When a
// pivot is eliminated its members and those of the nodes mass-eliminated
// with it take the next positions, the pivot first.  Nodes left at the end
// (barred nodes under order_barred == 0) are numbered in increasing
// original index.
//
// Marker arrays use tags that restart (array cleared) at 2^31-1.
#include <climits>
#include <cstdint>

#include "analysis/ordering.h"

namespace vm {
namespace {

// States of a node.
enum : int {
  kVar = 0,       // uneliminated, principal of its supernode
  kMerged = 1,    // merged into another uneliminated supernode
  kElement = 2,   // eliminated, a live element of the quotient graph
  kAbsorbed = 3,  // eliminated, its element absorbed by a later one
  kMass = 4       // eliminated together with a pivot (mass elimination)
};

// Flags of a node touched in the current step, and kExact, kept across
// steps: the degree key of the node is its exact external degree, not a
// lower bound.
enum : int { kCleaned = 1, kHashed = 2, kDegreeDone = 4, kExact = 8 };

constexpr int kArrays = 17;

struct MmdState {
  int n = 0;
  int *pe = nullptr;     // start of the node's list in iw
  int *len = nullptr;    // length of the list
  int *elen = nullptr;   // for an uneliminated node: its elements at the head of its list
  int *nv = nullptr;     // supernode weight; for an element, the weight of its members
  int *deg = nullptr;    // degree key; for an element, its weight outside the new
                         // element at hand; the hash value during merging
  int *st = nullptr;     // state (kVar ...)
  int *dnext = nullptr;  // degree list links (hash chains during merging)
  int *dprev = nullptr;
  int *dhead = nullptr;  // heads of the degree lists, by degree 0..n-1
  int *w1 = nullptr;     // marker of an element's members
  int *w2 = nullptr;     // marker of one node's reach
  int *link = nullptr;   // circular list of a supernode's members
  int *hhead = nullptr;  // heads of hash chains, -1 when empty
  int *cnt = nullptr;    // number of new elements of a node in this step
  int *flag = nullptr;   // step flags
  int *newel = nullptr;  // pivots of this step, in elimination order
  int *buf = nullptr;    // members of the element being formed
  int *iw = nullptr;
  int iwlen = 0;
  int pfree = 0;  // first free position at the end of iw
  int tag1 = 0;
  int tag2 = 0;
  const int *barred = nullptr;
  bool bar_active = false;
  int mindeg = 0;
  int num = 0;  // next position to number (zero-based)
  int *invp = nullptr;
};

// A fresh marker value; the array is cleared when the tags run out.
int next_tag(int *w, int n, int *tag) {
  if (*tag >= INT_MAX - 1) {
    for (int i = 0; i < n; ++i) w[i] = 0;
    *tag = 0;
  }
  return ++*tag;
}

bool is_barred(const MmdState &m, int i) {
  return m.bar_active && m.barred[i] != 0;
}

bool is_live(const MmdState &m, int x) {
  return m.st[x] == kVar || m.st[x] == kElement;
}

void degree_insert(MmdState &m, int i, int d) {
  const int h = m.dhead[d];
  m.dnext[i] = h;
  m.dprev[i] = -1;
  if (h != -1) m.dprev[h] = i;
  m.dhead[d] = i;
  m.deg[i] = d;
  if (d < m.mindeg) m.mindeg = d;
}

void degree_remove(MmdState &m, int i) {
  const int nx = m.dnext[i];
  const int pv = m.dprev[i];
  if (pv != -1) {
    m.dnext[pv] = nx;
  } else {
    m.dhead[m.deg[i]] = nx;
  }
  if (nx != -1) m.dprev[nx] = pv;
}

// Joins the member cycles of a and b.
void splice(MmdState &m, int a, int b) {
  const int t = m.link[a];
  m.link[a] = m.link[b];
  m.link[b] = t;
}

// Moves every live list to the front of iw.  The head of each list is
// replaced by -(owner+1) and the displaced entry kept in pe[owner], so one
// sweep finds the lists in storage order.
void compact_storage(MmdState &m) {
  int *iw = m.iw;
  for (int x = 0; x < m.n; ++x) {
    if (is_live(m, x) && m.len[x] > 0) {
      const int head = iw[m.pe[x]];
      iw[m.pe[x]] = -(x + 1);
      m.pe[x] = head;
    }
  }
  int dst = 0;
  int k = 0;
  while (k < m.pfree) {
    if (iw[k] < 0) {
      const int x = -iw[k] - 1;
      const int head = m.pe[x];
      m.pe[x] = dst;
      iw[dst++] = head;
      for (int q = 1; q < m.len[x]; ++q) iw[dst++] = iw[k + q];
      k += m.len[x];
    } else {
      ++k;
    }
  }
  m.pfree = dst;
}

// Eliminates pivot p: forms L_p, absorbs p's elements, and takes the nodes
// of L_p out of the degree lists for the rest of the step.
int eliminate(MmdState &m, int p) {
  int *const iw = m.iw;
  int *const st = m.st;
  const int *const pe = m.pe;
  int *const len = m.len;
  int *const w1 = m.w1;
  int *const buf = m.buf;
  const int t = next_tag(w1, m.n, &m.tag1);
  w1[p] = t;
  int count = 0;
  const int base = pe[p];
  const int ne = m.elen[p];
  const int ln = len[p];
  for (int k = base; k < base + ne; ++k) {
    const int e = iw[k];
    if (st[e] != kElement) continue;
    for (int q = pe[e]; q < pe[e] + len[e]; ++q) {
      const int j = iw[q];
      if (st[j] == kVar && w1[j] != t) {
        w1[j] = t;
        buf[count++] = j;
      }
    }
    st[e] = kAbsorbed;
    len[e] = 0;
  }
  for (int k = base + ne; k < base + ln; ++k) {
    const int j = iw[k];
    if (st[j] == kVar && w1[j] != t) {
      w1[j] = t;
      buf[count++] = j;
    }
  }
  st[p] = kElement;
  m.elen[p] = 0;

  int dst = base;
  if (count > ln) {
    len[p] = 0;
    if (static_cast<int64_t>(m.pfree) + count > m.iwlen) {
      compact_storage(m);
      if (static_cast<int64_t>(m.pfree) + count > m.iwlen) return kOrderInternal;
    }
    dst = m.pfree;
    m.pfree += count;
    m.pe[p] = dst;
  }
  for (int k = 0; k < count; ++k) iw[dst + k] = buf[k];
  len[p] = count;

  int *const cnt = m.cnt;
  for (int k = 0; k < count; ++k) {
    const int j = buf[k];
    if (cnt[j] == 0 && !is_barred(m, j)) degree_remove(m, j);
    ++cnt[j];
  }
  return kOrderOk;
}

// Cleans the lists of the members of each new element, performs mass
// elimination, and numbers the pivots of the step.
int clean_and_number(MmdState &m, int nnew) {
  int *const iw = m.iw;
  int *const st = m.st;
  const int *const pe = m.pe;
  int *const len = m.len;
  int *const elen = m.elen;
  int *const w1 = m.w1;
  int *const flag = m.flag;
  const int *const cnt = m.cnt;
  for (int a = 0; a < nnew; ++a) {
    const int p = m.newel[a];
    const int t = next_tag(w1, m.n, &m.tag1);
    const int pb = pe[p];
    const int pl = len[p];
    for (int q = pb; q < pb + pl; ++q) w1[iw[q]] = t;
    const bool p_barred = is_barred(m, p);
    for (int q = pb; q < pb + pl; ++q) {
      const int j = iw[q];
      if (st[j] != kVar || (flag[j] & kCleaned) != 0) continue;
      flag[j] |= kCleaned;
      const int jb = pe[j];
      const int je = elen[j];
      const int jl = len[j];
      int d = jb;
      for (int k = jb; k < jb + je; ++k) {
        const int e = iw[k];
        if (st[e] == kElement) iw[d++] = e;
      }
      const int kept_elements = d - jb;
      for (int k = jb + je; k < jb + jl; ++k) {
        const int v = iw[k];
        if (st[v] == kVar && w1[v] != t) iw[d++] = v;
      }
      const int newlen = d - jb;
      // Room for the new elements of j: one freed slot per new element.
      if (jl - newlen < cnt[j]) return kOrderInternal;
      elen[j] = kept_elements;
      len[j] = newlen;
      if (cnt[j] == 1 && newlen == 0 && is_barred(m, j) == p_barred) {
        // j is adjacent to nothing but L_p: it is eliminated with p.
        st[j] = kMass;
        splice(m, p, j);
      }
    }
    int d = pb;
    for (int q = pb; q < pb + pl; ++q) {
      if (st[iw[q]] == kVar) iw[d++] = iw[q];
    }
    len[p] = d - pb;
  }
  for (int a = 0; a < nnew; ++a) {
    const int p = m.newel[a];
    int x = p;
    do {
      m.invp[x] = m.num++;
      x = m.link[x];
    } while (x != p);
  }
  return kOrderOk;
}

// Puts each new element at the head of the element part of its members.
void insert_new_elements(MmdState &m, int nnew) {
  int *const iw = m.iw;
  const int *const pe = m.pe;
  int *const len = m.len;
  int *const elen = m.elen;
  for (int a = 0; a < nnew; ++a) {
    const int p = m.newel[a];
    for (int q = pe[p]; q < pe[p] + len[p]; ++q) {
      const int j = iw[q];
      const int pos = pe[j] + elen[j];
      if (len[j] > elen[j]) iw[pe[j] + len[j]] = iw[pos];
      iw[pos] = p;
      ++elen[j];
      ++len[j];
    }
  }
}

// Merges members of the new elements whose lists hold the same live
// entries (indistinguishable nodes).  Candidates are grouped by the sum of
// their entries modulo n.
void merge_indistinguishable(MmdState &m, int nnew) {
  int *const iw = m.iw;
  int *const st = m.st;
  const int *const pe = m.pe;
  int *const len = m.len;
  int *const w1 = m.w1;
  int *const w2 = m.w2;
  int *const flag = m.flag;
  int *const dnext = m.dnext;
  int *const hhead = m.hhead;
  const unsigned modulus = static_cast<unsigned>(m.n);
  for (int a = 0; a < nnew; ++a) {
    const int p = m.newel[a];
    const int pb = pe[p];
    const int pl = len[p];
    const int t = next_tag(w1, m.n, &m.tag1);
    for (int q = pb; q < pb + pl; ++q) {
      const int j = iw[q];
      if (st[j] != kVar || (flag[j] & kHashed) != 0) continue;
      flag[j] |= kHashed;
      w1[j] = t;
      unsigned h = 0;
      for (int k = pe[j]; k < pe[j] + len[j]; ++k) {
        const int x = iw[k];
        if (st[x] == kVar || st[x] == kElement) h += static_cast<unsigned>(x);
      }
      const int bucket = static_cast<int>(h % modulus);
      m.deg[j] = bucket;
      dnext[j] = hhead[bucket];
      hhead[bucket] = j;
    }
    for (int q = pb; q < pb + pl; ++q) {
      const int j = iw[q];
      if (w1[j] != t) continue;
      const int bucket = m.deg[j];
      const int first = hhead[bucket];
      if (first == -1 || dnext[first] == -1) {
        hhead[bucket] = -1;
        continue;
      }
      hhead[bucket] = -1;
      for (int i = first; i != -1; i = dnext[i]) {
        if (st[i] != kVar) continue;
        const int t2 = next_tag(w2, m.n, &m.tag2);
        int count_i = 0;
        for (int k = pe[i]; k < pe[i] + len[i]; ++k) {
          const int x = iw[k];
          if (st[x] == kVar || st[x] == kElement) {
            w2[x] = t2;
            ++count_i;
          }
        }
        int prev = i;
        for (int j2 = dnext[i]; j2 != -1; j2 = dnext[j2]) {
          bool same = st[j2] == kVar && is_barred(m, i) == is_barred(m, j2);
          int count_j = 0;
          for (int k = pe[j2]; same && k < pe[j2] + len[j2]; ++k) {
            const int x = iw[k];
            if (st[x] != kVar && st[x] != kElement) continue;
            if (w2[x] != t2) same = false;
            ++count_j;
          }
          if (same && count_j == count_i) {
            m.nv[i] += m.nv[j2];
            m.nv[j2] = 0;
            st[j2] = kMerged;
            len[j2] = 0;
            m.elen[j2] = 0;
            splice(m, i, j2);
            dnext[prev] = dnext[j2];
          } else {
            prev = j2;
          }
        }
      }
    }
  }
}

// Exact external degree of node j from scratch: the weight of the members
// of all its elements and of its neighbours, j's supernode excluded.  Stale
// entries of the element lists met on the way are dropped.
int full_external_degree(MmdState &m, int j) {
  int *const iw = m.iw;
  const int *const st = m.st;
  const int *const pe = m.pe;
  int *const len = m.len;
  const int *const nv = m.nv;
  int *const w2 = m.w2;
  const int t2 = next_tag(w2, m.n, &m.tag2);
  w2[j] = t2;
  int d = 0;
  for (int k = pe[j]; k < pe[j] + len[j]; ++k) {
    const int y = iw[k];
    if (st[y] == kElement) {
      const int eb = pe[y];
      int dst = eb;
      for (int q = eb; q < eb + len[y]; ++q) {
        const int x = iw[q];
        if (st[x] != kVar) continue;
        iw[dst++] = x;
        if (w2[x] != t2) {
          w2[x] = t2;
          d += nv[x];
        }
      }
      len[y] = dst - eb;
    } else if (st[y] == kVar && w2[y] != t2) {
      w2[y] = t2;
      d += nv[y];
    }
  }
  return d;
}

// New degree keys of the members of the new elements; they return to the
// degree lists (barred nodes excepted), and the step flags are reset.
//
// For a member j of the new element p the external degree is
//   |L_p| - nv[j] + |(union of L_e \ L_p over j's other elements e)
//                    u (j's neighbours outside L_p)|   (weights),
// where |L_e \ L_p| comes from the element's weight minus the weight of
// its members inside L_p, at the cost of one sweep over the element lists
// of L_p's members.  An element lying wholly inside L_p adds nothing to any
// reach and is absorbed.  The largest single term gives a lower bound, the
// sum an upper bound; when they agree the degree is exact, otherwise the
// lower bound is stored and the exact degree is computed only if the node
// reaches the minimum (see run_mmd).
void update_degrees(MmdState &m, int nnew) {
  int *const iw = m.iw;
  int *const st = m.st;
  const int *const pe = m.pe;
  int *const len = m.len;
  const int *const elen = m.elen;
  int *const nv = m.nv;
  int *const deg = m.deg;
  int *const w1 = m.w1;
  int *const flag = m.flag;
  // Weight of each new element (kept in nv, free once a node is eliminated).
  for (int a = 0; a < nnew; ++a) {
    const int p = m.newel[a];
    const int pb = pe[p];
    int weight = 0;
    int d = pb;
    for (int q = pb; q < pb + len[p]; ++q) {
      const int j = iw[q];
      if (st[j] != kVar) continue;
      iw[d++] = j;
      weight += nv[j];
    }
    len[p] = d - pb;
    nv[p] = weight;
  }
  for (int a = 0; a < nnew; ++a) {
    const int p = m.newel[a];
    if (st[p] != kElement) continue;  // absorbed by another new element
    const int pb = pe[p];
    const int pend = pb + len[p];
    const int base = nv[p];
    const int t = next_tag(w1, m.n, &m.tag1);
    for (int q = pb; q < pend; ++q) w1[iw[q]] = t;
    // deg[e] := weight of L_e outside L_p, for the elements touching L_p
    for (int q = pb; q < pend; ++q) {
      const int j = iw[q];
      for (int k = pe[j]; k < pe[j] + elen[j]; ++k) {
        const int e = iw[k];
        if (e == p || st[e] != kElement) continue;
        if (w1[e] != t) {
          w1[e] = t;
          deg[e] = nv[e];
        }
        deg[e] -= nv[j];
      }
    }
    for (int q = pb; q < pend; ++q) {
      const int j = iw[q];
      if ((flag[j] & kDegreeDone) != 0) continue;
      flag[j] |= kDegreeDone;
      int low = 0;
      int high = 0;
      const int jb = pe[j];
      const int je = jb + elen[j];
      for (int k = jb; k < je; ++k) {
        const int e = iw[k];
        if (e == p || st[e] != kElement) continue;
        const int outside = deg[e];
        if (outside == 0) {
          st[e] = kAbsorbed;
          len[e] = 0;
          continue;
        }
        high += outside;
        if (outside > low) low = outside;
      }
      int neighbours = 0;
      for (int k = je; k < jb + len[j]; ++k) {
        const int x = iw[k];
        if (st[x] == kVar && w1[x] != t) neighbours += nv[x];
      }
      high += neighbours;
      if (neighbours > low) low = neighbours;
      const int dg = base - nv[j] + low;
      if (low == high) {
        flag[j] |= kExact;
      } else {
        flag[j] &= ~kExact;
      }
      deg[j] = dg;
      if (!is_barred(m, j)) degree_insert(m, j, dg);
    }
  }
  for (int a = 0; a < nnew; ++a) {
    const int p = m.newel[a];
    if (st[p] != kElement) continue;  // its members belong to the absorber
    for (int q = pe[p]; q < pe[p] + len[p]; ++q) {
      flag[iw[q]] &= kExact;
      m.cnt[iw[q]] = 0;
    }
  }
}

// Copies the graph into iw, zero-based, without self loops or repeated
// entries, and sets up the node records and degree lists.
void initialise(MmdState &m, const int *xadj, const int *adjncy) {
  const int n = m.n;
  int *iw = m.iw;
  for (int i = 0; i < n; ++i) m.w1[i] = -1;
  int p = 0;
  for (int i = 0; i < n; ++i) {
    m.pe[i] = p;
    for (int k = xadj[i] - 1; k < xadj[i + 1] - 1; ++k) {
      const int j = adjncy[k] - 1;
      if (j == i || m.w1[j] == i) continue;
      m.w1[j] = i;
      iw[p++] = j;
    }
    m.len[i] = p - m.pe[i];
  }
  m.pfree = p;
  for (int i = 0; i < n; ++i) {
    m.elen[i] = 0;
    m.nv[i] = 1;
    m.st[i] = kVar;
    m.w1[i] = 0;
    m.w2[i] = 0;
    m.link[i] = i;
    m.hhead[i] = -1;
    m.cnt[i] = 0;
    m.flag[i] = kExact;
    m.dhead[i] = -1;
    m.invp[i] = -1;
  }
  m.tag1 = 0;
  m.tag2 = 0;
  m.mindeg = n;
  for (int i = n - 1; i >= 0; --i) {
    m.deg[i] = m.len[i];
    if (!is_barred(m, i)) degree_insert(m, i, m.len[i]);
  }
}

// Lifts the barring: the remaining nodes get exact degrees and enter the
// degree lists.
void release_barred(MmdState &m) {
  m.bar_active = false;
  for (int i = m.n - 1; i >= 0; --i) {
    if (m.st[i] != kVar) continue;
    m.flag[i] |= kExact;
    degree_insert(m, i, full_external_degree(m, i));
  }
}

int run_mmd(MmdState &m, int order_barred) {
  const int n = m.n;
  for (;;) {
    while (m.mindeg < n && m.dhead[m.mindeg] == -1) ++m.mindeg;
    if (m.mindeg >= n) {
      if (m.bar_active && order_barred != 0 && m.num < n) {
        release_barred(m);
        continue;
      }
      break;
    }
    const int d = m.mindeg;
    int nnew = 0;
    while (m.dhead[d] != -1) {
      const int p = m.dhead[d];
      degree_remove(m, p);
      if ((m.flag[p] & kExact) == 0) {
        // The key was a lower bound: settle it, and move the node up if the
        // exact degree is larger.
        const int exact = full_external_degree(m, p);
        m.flag[p] |= kExact;
        if (exact > d) {
          degree_insert(m, p, exact);
          continue;
        }
      }
      const int status = eliminate(m, p);
      if (status != kOrderOk) return status;
      m.newel[nnew++] = p;
    }
    if (nnew == 0) continue;  // every candidate moved up
    m.mindeg = n;
    const int status = clean_and_number(m, nnew);
    if (status != kOrderOk) return status;
    insert_new_elements(m, nnew);
    merge_indistinguishable(m, nnew);
    update_degrees(m, nnew);
    if (m.mindeg > d) m.mindeg = d;
  }
  return kOrderOk;
}

}  // namespace

int64_t order_mmd_work_size(int n, int64_t nadj) {
  if (n < 0 || nadj < 0) return 0;
  int64_t iwlen = nadj + nadj / 4 + 2 * static_cast<int64_t>(n) + 1;
  if (iwlen > INT_MAX) iwlen = INT_MAX;
  return static_cast<int64_t>(kArrays) * n + iwlen;
}

int ORDER_MMD_BARRED_VELMORA(int n, const int *xadj, const int *adjncy, const int *barred,
                             int order_barred, int *perm, int *invp, int *work, int64_t lwork) {
  if (n < 0) return kOrderBadArgument;
  if (n == 0) return kOrderOk;
  if (xadj == nullptr || perm == nullptr || invp == nullptr || work == nullptr) {
    return kOrderBadArgument;
  }
  int status = order_check_graph(n, xadj, adjncy, 0, nullptr);
  if (status != kOrderOk) return status;
  const int64_t nadj = static_cast<int64_t>(xadj[n]) - 1;
  // Positions in iw are ints: the quotient graph plus the scratch of the
  // symmetry test must fit below INT_MAX.
  if (nadj + 2 * static_cast<int64_t>(n) + 1 > INT_MAX) return kOrderBadArgument;
  if (lwork < order_mmd_work_size(n, nadj)) return kOrderShortWork;

  MmdState m;
  m.n = n;
  int *w = work;
  int **arrays[kArrays] = {&m.pe,    &m.len,   &m.elen,  &m.nv,    &m.deg, &m.st,
                           &m.dnext, &m.dprev, &m.dhead, &m.w1,    &m.w2,  &m.link,
                           &m.hhead, &m.cnt,   &m.flag,  &m.newel, &m.buf};
  for (int a = 0; a < kArrays; ++a) {
    *arrays[a] = w;
    w += n;
  }
  m.iw = w;
  const int64_t room = lwork - static_cast<int64_t>(kArrays) * n;
  m.iwlen = room > INT_MAX ? INT_MAX : static_cast<int>(room);

  status = order_check_graph(n, xadj, adjncy, 1, m.iw);
  if (status != kOrderOk) return status;

  m.barred = barred;
  m.bar_active = barred != nullptr;
  m.invp = invp;
  initialise(m, xadj, adjncy);
  status = run_mmd(m, order_barred);
  if (status != kOrderOk) return status;

  // Nodes never eliminated (barred ones left in natural order) come last.
  for (int i = 0; i < n; ++i) {
    if (invp[i] < 0) invp[i] = m.num++;
  }
  if (m.num != n) return kOrderInternal;
  for (int i = 0; i < n; ++i) perm[invp[i]] = i + 1;
  for (int i = 0; i < n; ++i) invp[i] += 1;
  return kOrderOk;
}

int ORDER_MMD_VELMORA(int n, const int *xadj, const int *adjncy, int *perm, int *invp, int *work,
                      int64_t lwork) {
  return ORDER_MMD_BARRED_VELMORA(n, xadj, adjncy, nullptr, 0, perm, invp, work, lwork);
}

}  // namespace vm
