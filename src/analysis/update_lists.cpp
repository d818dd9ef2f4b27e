// update_lists.cpp - the two-level update lists (see update_lists.h): one
// walk over the row lists of every supernode counts the buckets, a second
// fills them.  Both are serial and linear in the size of lindx.
#include "analysis/update_lists.h"

#include <algorithm>

#include "analysis/domains.h"

namespace vm {

namespace {

int first_top(const UpdateListsInput &in) {
  return in.domains[2 * in.ndom];
}

// The bucket pointers of the two-level and distributed forms: ptr holds
// each bucket's count and receives its one-based start (the place a fill
// then advances); returns the total.
int counts_to_starts(int *ptr, std::int64_t buckets) {
  int start = 1;
  for (std::int64_t b = 0; b < buckets; ++b) {
    const int c = ptr[b];
    ptr[b] = start;
    start += c;
  }
  return start - 1;
}

// After a fill, each place stands at the next bucket's start: shift the
// pointers back by one.
void restore_starts(int *ptr, std::int64_t buckets) {
  for (std::int64_t b = buckets - 1; b >= 1; --b) ptr[b] = ptr[b - 1];
  ptr[0] = 1;
}

// Calls hit(bucket, j, off) for each (top supernode t, supernode j) with
// a row of j in t, t != j, once per pair, in increasing j within each
// source: bucket is the zero-based bucket index, off the rows of j from
// its first row in t to the end of its list.
template <class Hit>
void walk(const UpdateListsInput &in, Hit hit) {
  const int ftop = first_top(in);
  const int xtop = in.xsuper[ftop - 1];
  const int nsrc = in.ndom + 1;
  for (int d = 0; d < nsrc; ++d) {
    for (int j = in.domains[2 * d]; j <= in.domains[2 * d + 1]; ++j) {
      const std::int64_t end = in.xlindx[j];  // one past the last position, one-based
      int last_hit = 0;
      for (std::int64_t p = in.xlindx[j - 1] + 1; p < end; ++p) {
        const int r = in.lindx[p - 1];
        if (r < xtop) continue;
        const int t = in.snode[r - 1];
        if (t == j || t == last_hit) continue;
        last_hit = t;
        hit((t - ftop) * nsrc + d, j, static_cast<int>(end - p));
      }
    }
  }
}

}  // namespace

bool two_level_lists_apply(const UpdateListsInput &in) {
  if (in.ndom < 2 || in.domains == nullptr) return false;
  int next = 1;
  for (int d = 0; d <= in.ndom; ++d) {
    const int first = in.domains[2 * d], last = in.domains[2 * d + 1];
    if (first != next || last < first - 1) return false;
    next = last + 1;
  }
  return next == in.nsuper + 1 && first_top(in) <= in.nsuper;
}

std::int64_t update_list_buckets(const UpdateListsInput &in) {
  const std::int64_t ntop = in.nsuper - first_top(in) + 1;
  return ntop * (in.ndom + 1) + 1;
}

std::int64_t count_update_lists(const UpdateListsInput &in, int *counts) {
  const std::int64_t buckets = update_list_buckets(in);
  std::fill_n(counts, buckets, 0);
  std::int64_t total = 0;
  walk(in, [&](int b, int, int) {
    ++counts[b];
    ++total;
  });
  return total;
}

void UPDATE_LISTS_VELMORA(const UpdateListsInput &in, UpdateLists *out) {
  const std::int64_t buckets = update_list_buckets(in);
  out->ftop = first_top(in);
  out->nsrc = in.ndom + 1;
  out->ntop = in.nsuper - out->ftop + 1;
  int *ptr = out->bucket_ptr;
  count_update_lists(in, ptr);
  out->total = counts_to_starts(ptr, buckets);
  walk(in, [&](int b, int j, int off) {
    const int at = ptr[b]++;
    out->bucket_des[at - 1] = j;
    out->bucket_off[at - 1] = off;
  });
  restore_starts(ptr, buckets);
}

namespace {

// Calls hit(t, off) for each target t of supernode s (one-based, in
// increasing order) with off, the rows of s from its first row in t to
// the end of its list.
template <class Hit>
void targets_of(const UpdateListsInput &in, int s, Hit hit) {
  const std::int64_t end = in.xlindx[s];
  int last = s;
  for (std::int64_t p = in.xlindx[s - 1] + 1; p < end; ++p) {
    const int t = in.snode[in.lindx[p - 1] - 1];
    if (t == last) continue;
    last = t;
    hit(t, static_cast<int>(end - p));
  }
}

}  // namespace

std::int64_t count_target_lists(const UpdateListsInput &in) {
  std::int64_t total = 0;
  for (int s = 1; s <= in.nsuper; ++s) targets_of(in, s, [&](int, int) { ++total; });
  return total;
}

void target_lists(const UpdateListsInput &in, TargetLists *out) {
  int at = 0;
  out->upd_head[0] = 0;
  out->tgt_ptr[0] = 1;
  for (int s = 1; s <= in.nsuper; ++s) {
    out->upd_head[s] = out->upd_head[s - 1] + in.nmod[s - 1];
    targets_of(in, s, [&](int t, int off) {
      out->tgt_col[at] = in.xsuper[t - 1];
      out->tgt_off[at] = off;
      ++at;
    });
    out->tgt_ptr[s] = at + 1;
  }
  out->total = at;
}

int classical_tasks(const UpdateListsInput &in, int nthreads, double *weight, int *first,
                    int *task_range, int *nsub) {
  const int ns = in.nsuper;
  int *count = first + ns;
  // For the subtree of s: weight, its work, each supernode counting
  // ncols * len^2 (its panel times its rows); first, its first supernode;
  // count, its supernodes.
  double whole = 0;
  for (int s = 1; s <= ns; ++s) {
    const double ncols = in.xsuper[s] - in.xsuper[s - 1];
    const double len = static_cast<double>(in.xlindx[s] - in.xlindx[s - 1]);
    weight[s - 1] = ncols * len * len;
    first[s - 1] = s;
    count[s - 1] = 1;
    whole += weight[s - 1];
  }
  for (int s = 1; s <= ns; ++s) {
    const int p = in.sparent[s - 1];  // after s, 0 at a root
    if (p == 0) continue;
    weight[p - 1] += weight[s - 1];
    first[p - 1] = std::min(first[p - 1], first[s - 1]);
    count[p - 1] += count[s - 1];
  }
  // A subtree is one task when it is light and holds the range from its
  // first supernode to its root and nothing else; a task's subtree is the
  // largest such around it.
  const double light = whole / (static_cast<double>(kSubtreesPerThread) * std::max(1, nthreads));
  auto one_task = [&](int s) {
    return weight[s - 1] <= light && s - first[s - 1] + 1 == count[s - 1];
  };
  // From the roots down: state 1 at the root of a task's subtree, 2
  // inside one, 0 for a supernode alone.
  int *state = count + ns;
  for (int s = ns; s >= 1; --s) {
    const int p = in.sparent[s - 1];  // after s, 0 at a root
    state[s - 1] = p != 0 && state[p - 1] != 0 ? 2 : one_task(s) ? 1 : 0;
  }
  int ntasks = 0;
  for (int s = 1; s <= ns; ++s) {
    if (state[s - 1] != 1) continue;
    task_range[2 * ntasks] = first[s - 1];
    task_range[2 * ntasks + 1] = s;
    ++ntasks;
  }
  *nsub = ntasks;
  for (int s = 1; s <= ns; ++s) {
    if (state[s - 1] != 0) continue;
    task_range[2 * ntasks] = s;
    task_range[2 * ntasks + 1] = s;
    ++ntasks;
  }
  return ntasks;
}

namespace {

// Node k of a split: its domains and local top, and where its local
// set's bucket pointers start, counted from the first pointer.
struct NodeShape {
  int dfirst, dcount;  // its domains: zero-based first, count
  int tfirst, ntop;    // its local top
  std::int64_t ptr;    // its bucket pointers, from the first pointer
};

NodeShape node_shape(const UpdateListsInput &in, const NodeSplit &split, int k, std::int64_t ptr) {
  NodeShape s;
  s.dfirst = node_first_domain(in.ndom, split.nnodes, k);
  s.dcount = node_first_domain(in.ndom, split.nnodes, k + 1) - s.dfirst;
  s.tfirst = split.tops[2 * k];
  s.ntop = split.tops[2 * k + 1] - s.tfirst + 1;
  s.ptr = ptr;
  return s;
}

std::int64_t local_pointers(const NodeShape &s) {
  return std::int64_t{s.ntop} * (s.dcount + 1) + 1;
}

// Calls hit(bucket, j, off) for each pair (target t, descendant j) of the
// distributed form, bucket counted from the first pointer; returns false
// at a row of j in a part of another node.
template <class Hit>
bool walk_split(const UpdateListsInput &in, const NodeSplit &split, Hit hit) {
  const int m = split.nnodes;
  const int gfirst = split.tops[2 * m];
  std::int64_t ptr = 0;
  std::int64_t gptr = 0;
  for (int k = 0; k < m; ++k) gptr += local_pointers(node_shape(in, split, k, 0));
  for (int k = 0; k < m; ++k) {
    const NodeShape s = node_shape(in, split, k, ptr);
    ptr += local_pointers(s);
    for (int c = 0; c <= s.dcount; ++c) {
      const bool top = c == s.dcount;
      const int first = top ? s.tfirst : in.domains[2 * (s.dfirst + c)];
      const int last = top ? s.tfirst + s.ntop - 1 : in.domains[2 * (s.dfirst + c) + 1];
      for (int j = first; j <= last; ++j) {
        bool inside = true;
        targets_of(in, j, [&](int t, int off) {
          if (!inside) return;
          if (t >= gfirst) {
            hit(gptr + std::int64_t{t - gfirst} * (m + 1) + k, j, off);
          } else if (t >= s.tfirst && t < s.tfirst + s.ntop) {
            hit(s.ptr + std::int64_t{t - s.tfirst} * (s.dcount + 1) + c, j, off);
          } else if (top || t > last) {
            inside = false;  // a row in another domain or another node's top
          }
        });
        if (!inside) return false;
      }
    }
  }
  // The global top's own source.
  for (int j = gfirst; j <= in.nsuper; ++j)
    targets_of(in, j,
               [&](int t, int off) { hit(gptr + std::int64_t{t - gfirst} * (m + 1) + m, j, off); });
  return true;
}

}  // namespace

bool distributed_lists_apply(const UpdateListsInput &in, const NodeSplit &split) {
  if (split.nnodes < 1 || split.tops == nullptr || !two_level_lists_apply(in)) return false;
  int next = first_top(in);
  for (int k = 0; k <= split.nnodes; ++k) {
    const int first = split.tops[2 * k], last = split.tops[2 * k + 1];
    if (first != next || last < first - 1) return false;
    next = last + 1;
  }
  return next == in.nsuper + 1;
}

std::int64_t distributed_list_ints(const UpdateListsInput &in, const NodeSplit &split) {
  const int m = split.nnodes;
  std::int64_t ints = distributed_header_ints(m);
  for (int k = 0; k < m; ++k) ints += local_pointers(node_shape(in, split, k, 0));
  const std::int64_t g = split.tops[2 * m + 1] - split.tops[2 * m] + 1;
  return ints + g * (m + 1) + 1;
}

std::int64_t count_distributed_lists(const UpdateListsInput &in, const NodeSplit &split) {
  std::int64_t total = 0;
  if (!walk_split(in, split, [&](std::int64_t, int, int) { ++total; })) return -1;
  return total;
}

void UPDATE_LISTS_VELMORA(const UpdateListsInput &in, const NodeSplit &split, int *group) {
  const int m = split.nnodes;
  const std::int64_t header = distributed_header_ints(m);
  const std::int64_t pointers = distributed_list_ints(in, split) - header;
  int *ptr = group + header;
  int stride = 0, sources = m + 1;
  group[0] = kDistributedListForm;
  group[1] = m;
  group[4] = in.ndom;
  for (int k = 0; k < m; ++k) {
    const NodeShape s = node_shape(in, split, k, 0);
    group[6 + 4 * k] = s.dfirst;
    group[7 + 4 * k] = s.dcount;
    group[8 + 4 * k] = s.tfirst;
    group[9 + 4 * k] = s.ntop;
    stride = std::max(stride, s.ntop);
    sources = std::max(sources, s.dcount + 1);
  }
  const int g = split.tops[2 * m + 1] - split.tops[2 * m] + 1;
  group[6 + 4 * m] = split.tops[2 * m];
  group[7 + 4 * m] = g;
  group[2] = std::max(stride, g);
  group[5] = sources;
  // Count, turn the counts into one-based starts over all sets at once (a
  // set's closing pointer counts nothing, so it starts the next set), fill.
  std::fill_n(ptr, pointers, 0);
  walk_split(in, split, [&](std::int64_t b, int, int) { ++ptr[b]; });
  const int total = counts_to_starts(ptr, pointers);
  group[3] = total;
  int *des = ptr + pointers;
  int *off = des + total;
  walk_split(in, split, [&](std::int64_t b, int j, int o) {
    const int at = ptr[b]++;
    des[at - 1] = j;
    off[at - 1] = o;
  });
  restore_starts(ptr, pointers);
}

}  // namespace vm
