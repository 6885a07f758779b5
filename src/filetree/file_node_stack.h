#pragma once

#include "filetree/CVFileNode.h"

/// A list of nodes used as a stack, for going back and forth in a tree.
inline void pushFileNode(CVFileNode::List &stack, CVFileNode::Pointer node)
{
    stack.push_back(std::move(node));
}

/// Takes the last node off; null from an empty stack. Every other occurrence of the same node goes with
/// it, so that stepping back never visits a node twice.
inline CVFileNode::Pointer popFileNode(CVFileNode::List &stack)
{
    if (stack.empty())
        return nullptr;
    const CVFileNode::Pointer last = stack.back();
    std::erase(stack, last);
    return last;
}
