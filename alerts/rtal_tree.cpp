// The metric tree: first-child / next-sibling nodes, each holding the full "->" path of its
// position, the counter's attributes and the instances whose values an alert rule reads.
#include "alerts/rtal_tree.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "alerts/rtal_state.h"
#include "agent/rtdc_log.h"

treeNode* Metric_Tree = nullptr;

namespace {

constexpr size_t kMaxTokenText = 512;  // longer paths cannot be split and are "not found"
constexpr int kTraceLevel = 9;         // the debug level that traces tree building

bool tracing() {
    return verbose_flag.load(std::memory_order_relaxed) == kTraceLevel;
}

// Fixed-width copy: truncated to the field, always NUL-terminated.
template <size_t N>
void copy_field(char (&field)[N], const char* text) {
    snprintf(field, N, "%s", text ? text : "");
}

// "<prefix>-><token>", cut to a description field.
void join_path(char (&out)[128], const char* prefix, const char* token) {
    snprintf(out, sizeof out, "%s->%s", prefix, token);
}

const char* description_of(const treeNode* node) {
    return node && node->data ? node->data->description : "";
}

void free_description(MetricDescription* md) {
    if (!md) return;
    DestroyList(md->instances);
    free(md);
}

// Frees a description that was never attached, leaving its instance to the caller when the
// instance is shared.
void discard_description(MetricDescription* md, MetricInstance* shared) {
    if (md && shared && md->instances) RemoveFromList(md->instances, shared);
    free_description(md);
}

MetricInstance* new_instance(void* base, const char* name) {
    auto* inst = static_cast<MetricInstance*>(calloc(1, sizeof(MetricInstance)));
    if (!inst) return nullptr;
    inst->base = base;
    copy_field(inst->name, name);
    return inst;
}

// Builds the payload of one counter level: its path, the counter's attributes and one
// instance: `shared` when given (a process's instance, which its process node owns), else
// a new one. Null when memory runs out (already logged).
MetricDescription* counter_description(const CounterDef* counter, const char* path, void* base,
                                       int byInstance, int instance, MetricInstance* shared) {
    auto* md = static_cast<MetricDescription*>(calloc(1, sizeof(MetricDescription)));
    if (!md) {
        RTDCAppendLog("AddMetricCounterNode: malloc failed : description\n");
        return nullptr;
    }
    copy_field(md->description, path);
    copy_field(md->text, counter->description);
    md->offset = static_cast<uint32_t>(counter->offset);
    md->type = static_cast<uint32_t>(counter->type);
    md->attr = static_cast<uint32_t>(counter->marker);
    md->alertable = static_cast<uint32_t>(counter->is_counter);
    copy_field(md->unit, counter->units);

    MetricInstance* inst = shared;
    if (!inst) {
        char inst_name[128];
        if (byInstance)
            snprintf(inst_name, sizeof inst_name, "%d", instance);
        else
            copy_field(inst_name, md->description);
        inst = new_instance(base, inst_name);
    }
    if (!inst || !CreateList(&md->instances) || !AppendToList(&md->instances, inst)) {
        if (inst != shared) free(inst);
        free_description(md);
        RTDCAppendLog("AddMetricCounterNode: malloc failed : base \n");
        return nullptr;
    }
    return md;
}

// Depth-first search of a subtree (the node, its children, their siblings) for a path.
treeNode* find_in_subtree(treeNode* first, const char* path) {
    for (treeNode* n = first; n && n->data; n = n->next) {
        if (strcmp(n->data->description, path) == 0) return n;
        if (treeNode* hit = find_in_subtree(n->child, path)) return hit;
    }
    return nullptr;
}

// A new child of `parent` named `name` (as description and text), with no instances; null
// when memory runs out.
treeNode* new_named_node(const char* name, treeNode* parent) {
    auto* md = static_cast<MetricDescription*>(calloc(1, sizeof(MetricDescription)));
    if (!md) return nullptr;
    copy_field(md->description, name);
    copy_field(md->text, name);
    treeNode* fresh = nullptr;
    CreateNode(md, &fresh);
    if (!fresh) {
        free(md);
        return nullptr;
    }
    AddChild(fresh, parent);
    return fresh;
}

// The process-name nodes by path ("Process->name"), each with the instance of every pid its
// leaves carry. Registering a process would otherwise search every process name and then
// every instance of its name, which on a host with thousands of processes of one name is
// quadratic. Only touched under tree_mutex; an entry goes when its node is freed.
//
// One process's instance is the same for all its counters (its record and its pid), so
// the leaves of a process node share it instead of holding a copy each: the node owns the
// instances, its leaves' lists only point at them. On a host with thousands of processes
// these instances were most of the tree.
struct ProcessNode {
    treeNode* node;
    std::unordered_map<int, MetricInstance*> members;
};

std::unordered_map<std::string, ProcessNode>& process_nodes() {
    static auto* index = new std::unordered_map<std::string, ProcessNode>;
    return *index;
}

// Empties the instance lists below `first` and its later siblings without freeing what
// they point at.
void unlink_shared_instances(treeNode* first) {
    for (treeNode* n = first; n; n = n->next) {
        if (n->data && n->data->instances)
            while (ListItem* item = n->data->instances->first) RemoveItem(n->data->instances, item);
        unlink_shared_instances(n->child);
    }
}

// A process node about to be freed takes its shared instances with it, after its leaves
// let go of them.
void release_if_process_node(treeNode* node) {
    auto& index = process_nodes();
    if (index.empty() || !node->data || !node->parent || !node->parent->data ||
        strcmp(node->parent->data->description, "Process") != 0)
        return;
    auto it = index.find(node->data->description);
    if (it == index.end() || it->second.node != node) return;
    unlink_shared_instances(node->child);
    for (auto& member : it->second.members) free(member.second);
    index.erase(it);
}

}  // namespace

int CreateTokenList(char* text, const char* separators, List** list) {
    *list = nullptr;
    if (!text || strlen(text) > kMaxTokenText) return 0;
    List* tokens = nullptr;
    if (!CreateList(&tokens)) return 0;
    char* save = nullptr;
    for (char* tok = strtok_r(text, separators, &save); tok;
         tok = strtok_r(nullptr, separators, &save)) {
        char* copy = strdup(tok);
        if (!copy || !AppendToList(&tokens, copy)) {
            free(copy);
            DestroyList(tokens);
            return 0;
        }
        if (tracing()) rtdc_logf("AppendToList %s\n", copy);
    }
    *list = tokens;
    return 1;
}

void CreateNode(MetricDescription* data, treeNode** node) {
    *node = static_cast<treeNode*>(calloc(1, sizeof(treeNode)));
    if (!*node) {
        RTDCAppendLog("CreateNode: malloc failed treeNode\n");
        return;
    }
    (*node)->data = data;
}

void AddChild(treeNode* node, treeNode* parent) {
    node->parent = parent;
    node->prev = nullptr;
    node->next = parent->child;
    if (parent->child) parent->child->prev = node;
    parent->child = node;
}

treeNode* SearchInChilds(const char* name, treeNode* firstSibling) {
    for (treeNode* n = firstSibling; n && n->data; n = n->next)
        if (strcmp(n->data->description, name) == 0) return n;
    return nullptr;
}

int SearchChildren(const char* name, treeNode* firstSibling, treeNode** found) {
    *found = SearchInChilds(name, firstSibling);
    return *found ? 1 : 0;
}

int SearchDescription1(const char* path, treeNode* root, treeNode** found, int trace) {
    *found = nullptr;
    if (!root || !path) return 0;
    std::lock_guard<std::mutex> lock(tree_mutex);

    std::string work(path);  // the tokeniser cuts its input
    List* tokens = nullptr;
    if (!CreateTokenList(work.data(), "->", &tokens)) return 0;

    char prefix[128] = "";
    treeNode* current = root;
    for (ListItem* it = tokens->first; it; it = it->next) {
        char candidate[128];
        snprintf(candidate, sizeof candidate, "%s%s", prefix, static_cast<char*>(it->data));
        if (trace)
            rtdc_logf("searchdescription1: call searchChildren %s, last_description = %s\n",
                      candidate, prefix);
        treeNode* hit = nullptr;
        if (!SearchChildren(candidate, current->child, &hit)) {
            if (trace) RTDCAppendLog("searchdescription1: call searchChildren failed\n");
            DestroyList(tokens);
            return 0;
        }
        current = hit;
        snprintf(prefix, sizeof prefix, "%s->", candidate);
    }
    DestroyList(tokens);
    *found = current;
    return 1;
}

int AddMetricNode(const char* name, treeNode* parent, treeNode** node) {
    *node = nullptr;
    if (!parent) return 0;
    if (treeNode* existing = SearchInChilds(name, parent->child)) {
        *node = existing;
        return 1;
    }
    *node = new_named_node(name, parent);
    return *node ? 1 : 0;
}

namespace {

// AddMetricCounterNode, with the instance of every new level either `shared` or made anew.
int add_counter_node(const CounterDef* counter, treeNode* parent, void* base, int byInstance,
                     int instance, MetricInstance* shared) {
    if (!counter) return 2;
    if (!parent) return 5;
    if (tracing())
        rtdc_logf("AddMetricCounterNode: %s to %s\n", counter->name, description_of(parent));

    char work[sizeof counter->name];
    copy_field(work, counter->name);

    if (strstr(work, "->")) {
        List* tokens = nullptr;
        if (!CreateTokenList(work, "->", &tokens)) return 2;
        treeNode* current = parent;
        for (ListItem* it = tokens->first; it; it = it->next) {
            char candidate[128];
            join_path(candidate, description_of(current), static_cast<char*>(it->data));
            if (treeNode* hit = SearchInChilds(candidate, current->child)) {
                current = hit;  // a level made by an earlier counter is reused unchanged
                continue;
            }
            MetricDescription* md =
                counter_description(counter, candidate, base, byInstance, instance, shared);
            if (!md) {
                DestroyList(tokens);
                return 2;
            }
            treeNode* fresh = nullptr;
            CreateNode(md, &fresh);
            if (!fresh) {
                // Only the node itself failed: the counter is dropped quietly and the
                // caller goes on with the next one.
                discard_description(md, shared);
                DestroyList(tokens);
                return 1;
            }
            AddChild(fresh, current);
            current = fresh;
        }
        DestroyList(tokens);
        return 1;
    }

    if (tracing()) rtdc_logf("AddMetricCounterNode: %s Does not have sublevel\n", counter->name);
    // A single-level counter is added without looking for an existing node, so registering
    // the same table twice gives it a second node.
    char path[128] = "";
    if (parent->data) join_path(path, parent->data->description, counter->name);
    MetricDescription* md =
        counter_description(counter, path, base, byInstance, instance, shared);
    if (!md) return 2;
    treeNode* fresh = nullptr;
    CreateNode(md, &fresh);
    if (!fresh) {
        discard_description(md, shared);
        return 2;
    }
    AddChild(fresh, parent);
    return 1;
}

}  // namespace

int AddMetricCounterNode(const CounterDef* counter, treeNode* parent, void* base, int byInstance,
                         int instance) {
    return add_counter_node(counter, parent, base, byInstance, instance, nullptr);
}

int AddCounter(const char* className, const CounterDef* counters, void* base, treeNode* parent) {
    if (tracing()) rtdc_logf("AddCounter: Counters for metric %s\n", className);
    if (!parent) return 5;
    std::lock_guard<std::mutex> lock(tree_mutex);
    treeNode* classNode = nullptr;
    if (!AddMetricNode(className, parent, &classNode)) return 2;
    for (const CounterDef* row = counters; row && row->id != 0; ++row) {
        if (row->is_counter != 1) continue;
        int rc = AddMetricCounterNode(row, classNode, base, 0, 0);
        if (rc != 1) return rc;
    }
    return 1;
}

int AddProcessCounter(const char* processName, const CounterDef* counters, void* base,
                      treeNode* root, int pid) {
    if (!root) return 5;
    std::lock_guard<std::mutex> lock(tree_mutex);
    treeNode* classNode = nullptr;
    if (!AddMetricNode("Process", root, &classNode)) return 2;

    char path[128];
    join_path(path, classNode->data->description, processName ? processName : "");
    char pid_text[32];
    snprintf(pid_text, sizeof pid_text, "%d", pid);
    auto& index = process_nodes();
    auto known = index.find(path);
    if (known == index.end()) {
        // Process nodes are made only here, so a name the index lacks has no node yet.
        MetricInstance* inst = new_instance(base, pid_text);
        if (!inst) return 2;
        treeNode* processNode = new_named_node(path, classNode);
        if (!processNode) {
            free(inst);
            return 2;
        }
        index[path] = ProcessNode{processNode, {{pid, inst}}};
        for (const CounterDef* row = counters; row && row->id != 0; ++row) {
            if (row->is_counter != 1) continue;
            int rc = add_counter_node(row, processNode, base, 1, pid, inst);
            if (rc != 1) return rc;
        }
        return 1;
    }

    // Another process of the same name: its values join the existing leaves as one more
    // instance, so a rule on the name watches the sum over all of them. A pid the node
    // already carries adds nothing.
    auto& members = known->second.members;
    if (members.count(pid)) return 1;
    MetricInstance* inst = new_instance(base, pid_text);
    if (!inst) return 1;
    members.emplace(pid, inst);
    treeNode* processNode = known->second.node;
    for (const CounterDef* row = counters; row && row->id != 0; ++row) {
        if (row->is_counter != 1) continue;
        char leaf_path[128];
        join_path(leaf_path, processNode->data->description, row->name);
        treeNode* leaf = find_in_subtree(processNode->child, leaf_path);
        if (!leaf) return 1;
        if (!leaf->data->instances && !CreateList(&leaf->data->instances)) continue;
        AppendToList(&leaf->data->instances, inst);
    }
    return 1;
}

treeNode* FindProcessNode(const char* processName) {
    char path[128];
    join_path(path, "Process", processName ? processName : "");
    std::lock_guard<std::mutex> lock(tree_mutex);
    auto& index = process_nodes();
    auto it = index.find(path);
    return it == index.end() ? nullptr : it->second.node;
}

int RemoveTree(treeNode* node) {
    // Siblings are walked in a loop rather than by recursion: the process class can hold
    // thousands of them and request threads run on small stacks.
    while (node) {
        treeNode* next = node->next;
        release_if_process_node(node);
        RemoveTree(node->child);
        free_description(node->data);
        if (node == Metric_Tree) Metric_Tree = nullptr;
        free(node);
        node = next;
    }
    return 1;
}

int RemoveNode(treeNode* node) {
    if (!node) return 1;
    std::lock_guard<std::mutex> lock(tree_mutex);
    if (treeNode* parent = node->parent) {
        if (parent->child != node) {
            if (node->prev) node->prev->next = node->next;
            if (node->next) node->next->prev = node->prev;
        } else {
            parent->child = node->next;
            if (node->next) node->next->prev = nullptr;
        }
        node->next = nullptr;
        node->prev = nullptr;
    }
    // A parentless node is removed with its later siblings; the lock is released on this
    // path too, so a wrong caller cannot leave the tree locked for ever.
    RemoveTree(node);
    return 1;
}

void TraverseTree(treeNode* node, TreeVisit visit, void* arg) {
    if (!node) return;
    // Leaves are visited as: this node, then all its later siblings (each with its own later
    // siblings first), then the children, last sibling's children first. Walking the sibling
    // chain in a loop keeps that order without one stack frame per sibling.
    std::vector<treeNode*> siblings;
    for (treeNode* n = node; n; n = n->next) {
        if (!n->child) visit(n, arg, arg);
        siblings.push_back(n);
    }
    for (auto it = siblings.rbegin(); it != siblings.rend(); ++it)
        TraverseTree((*it)->child, visit, arg);
}

void Traverse_Tree_for_leaves(treeNode* node, TreeVisit visit, void* arg) {
    std::lock_guard<std::mutex> lock(tree_mutex);
    TraverseTree(node, visit, arg);
}

int rtal_create_root(const char* node_name) {
    if (Metric_Tree) return 1;
    auto* md = static_cast<MetricDescription*>(calloc(1, sizeof(MetricDescription)));
    if (!md) {
        RTDCAppendLog("Fallback: malloc failed : metricdescription\n");
        return 0;
    }
    copy_field(md->description, node_name);
    copy_field(md->text, "Root node");
    treeNode* root = nullptr;
    CreateNode(md, &root);
    if (!root) {
        free(md);
        RTDCAppendLog("Fallback: malloc failed : metrictree\n");
        return 0;
    }
    std::lock_guard<std::mutex> lock(tree_mutex);
    Metric_Tree = root;
    return 1;
}
