<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/**
 * A request that the authority answers with an error block. The message becomes
 * the block's description, which tools print: it is one whole sentence.
 */
final class Refusal extends \RuntimeException
{
    public function __construct(public readonly Fault $fault, string $description)
    {
        parent::__construct($description);
    }
}
