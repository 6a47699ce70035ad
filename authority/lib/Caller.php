<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** Whose account a request came in on. */
final class Caller
{
    /** @param int|null $agentId the agent that a system account belongs to; null for an administrator */
    public function __construct(public readonly string $login, public readonly ?int $agentId)
    {
    }

    /** Refuses callers other than administrators. */
    public function requireAdministrator(string $what): void
    {
        if ($this->agentId !== null) {
            throw new Refusal(Fault::NotAllowed, "Only an administrator may $what.");
        }
    }

    /** Refuses an agent that asks for another one; an administrator acts for every agent. */
    public function requireAgent(int $agentId): void
    {
        if ($this->agentId !== null && $this->agentId !== $agentId) {
            throw new Refusal(Fault::NotAllowed, "The account \"{$this->login}\" may act for its own agent only.");
        }
    }
}
