// The metric tree: every watchable value, hung under one root by the collectors.
// Guarded by tree_mutex.
#pragma once

#include <cstdint>

#include "agent/rtdc_list.h"
#include "collectors/rtdc_tables.h"

struct MetricDescription {
    char description[128];  // full path, e.g. "TCP->Packet Rate->Sent"
    char text[128];         // human description
    List* instances;        // MetricInstance items
    uint32_t offset;
    uint32_t type;
    uint32_t attr;
    uint32_t alertable;
    char unit[16];
};

struct MetricInstance {
    void* base;       // snapshot structure of this instance
    char name[128];   // pid in decimal for process counters, else the node's description
};

struct treeNode {
    MetricDescription* data;
    treeNode* next;
    treeNode* prev;
    treeNode* parent;
    treeNode* child;
};

extern treeNode* Metric_Tree;

int CreateTokenList(char* text, const char* separators, List** list);
void CreateNode(MetricDescription* data, treeNode** node);
void AddChild(treeNode* node, treeNode* parent);
treeNode* SearchInChilds(const char* name, treeNode* firstSibling);
int SearchChildren(const char* name, treeNode* firstSibling, treeNode** found);
int SearchDescription1(const char* path, treeNode* root, treeNode** found, int trace);
int AddMetricNode(const char* name, treeNode* parent, treeNode** node);
int AddMetricCounterNode(const CounterDef* counter, treeNode* parent, void* base, int byInstance,
                         int instance);
int AddCounter(const char* className, const CounterDef* counters, void* base, treeNode* parent);
int AddProcessCounter(const char* processName, const CounterDef* counters, void* base,
                      treeNode* root, int pid);
/// The node "Process-><name>" that AddProcessCounter made, or null; takes `tree_mutex`.
treeNode* FindProcessNode(const char* processName);
/// The leaves of a process node share each process's instance with their siblings, and
/// the process node owns those instances: remove the process node, never one of its leaves.
int RemoveNode(treeNode* node);
int RemoveTree(treeNode* node);
using TreeVisit = void (*)(treeNode* leaf, void* arg, void* arg2);
void TraverseTree(treeNode* node, TreeVisit visit, void* arg);
void Traverse_Tree_for_leaves(treeNode* node, TreeVisit visit, void* arg);

/// Creates the root ("Root node", description = node name) once; 1 on success.
int rtal_create_root(const char* node_name);
